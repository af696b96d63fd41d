// What the probes share: building expression nodes by hand, and SQL-callable functions.
#pragma once

extern "C" {
#include "postgres.h"

#include "fmgr.h"
#include "nodes/execnodes.h"
#include "nodes/makefuncs.h"
#include "utils/builtins.h"
#include "utils/rel.h"
#include "utils/relcache.h"
}

#include <string>
#include <vector>

// Opens the definition of an SQL-callable function.
#define PROBE(name)                                                                                          \
    extern "C" {                                                                                             \
    PG_FUNCTION_INFO_V1(name);                                                                               \
    }                                                                                                        \
    extern "C" Datum name(PG_FUNCTION_ARGS)

namespace probe
{

using Nodes = std::vector<Expr *>;

inline List *listOf(const Nodes &nodes)
{
    List *list = NIL;
    for (Expr *node : nodes)
        list = lappend(list, node);
    return list;
}

template <typename NodeType>
Expr *asExpr(NodeType *node)
{
    return reinterpret_cast<Expr *>(node);
}

inline Expr *column(int number) { return asExpr(makeVar(1, static_cast<AttrNumber>(number), INT4OID, -1, InvalidOid, 0)); }

inline Expr *constant(Oid type, Datum value, bool isNull = false)
{
    return asExpr(makeConst(type, -1, InvalidOid, 4, value, isNull, true));
}

inline Expr *number(int value) { return constant(INT4OID, Int32GetDatum(value)); }

inline Expr *truth(bool value) { return constant(BOOLOID, BoolGetDatum(value)); }

inline Expr *call(const Nodes &arguments)
{
    return asExpr(makeFuncExpr(870, TEXTOID, listOf(arguments), InvalidOid, InvalidOid, COERCE_EXPLICIT_CALL));
}

// An operator clause; 96 is the equality of int4, 98 of text, 1070 of arrays, 91 of bool.
inline Expr *op(Oid operatorId, const Nodes &arguments)
{
    OpExpr *node = makeNode(OpExpr);
    node->opno = operatorId;
    node->opresulttype = BOOLOID;
    node->args = listOf(arguments);
    return asExpr(node);
}

inline Expr *any(Oid operatorId, const Nodes &arguments)
{
    ScalarArrayOpExpr *node = makeNode(ScalarArrayOpExpr);
    node->opno = operatorId;
    node->useOr = true;
    node->args = listOf(arguments);
    return asExpr(node);
}

inline Expr *combine(BoolExprType type, const Nodes &arguments) { return makeBoolExpr(type, listOf(arguments), -1); }

inline Expr *array(Oid type, const Nodes &elements)
{
    ArrayExpr *node = makeNode(ArrayExpr);
    node->array_typeid = type;
    node->elements = listOf(elements);
    return asExpr(node);
}

inline Expr *parameter(Oid type, ParamKind kind = PARAM_EXTERN)
{
    Param *node = makeNode(Param);
    node->paramkind = kind;
    node->paramid = 1;
    node->paramtype = type;
    return asExpr(node);
}

inline std::string textArgument(FunctionCallInfo fcinfo, int index)
{
    return text_to_cstring(PG_GETARG_TEXT_PP(index));
}

inline Datum textResult(const std::string &result) { return PointerGetDatum(cstring_to_text(result.c_str())); }

} // namespace probe
