// Does a restriction clause pin one column to constant values, and which? The analysis is the same for
// strings, integers and booleans; a functor per kind says which types it takes and converts a value.
#include "quelmoraPgFdwConnectorBase.h"
#include "server/memory.h"

#include <cstring>

namespace
{

using qm::pgFdw::AnalyseCtx;
using qm::server::callServer;
using qm::server::FdwError;

// The accepted operators, the same for every kind of value.
constexpr Oid TextEqualOperator = 98;
constexpr Oid ArrayEqualOperator = 1070;
constexpr Oid Int4EqualOperator = 96;

// [server side] The elements of a one-dimensional text[] that are not NULL, as C strings.
List *textArrayElements(Datum value)
{
    auto *array =
        reinterpret_cast<ArrayType *>(pg_detoast_datum(reinterpret_cast<varlena *>(DatumGetPointer(value))));
    if (ARR_NDIM(array) != 1 || ARR_ELEMTYPE(array) != TEXTOID)
        return NIL;

    List *strings = NIL;
    ArrayIterator iterator = array_create_iterator(array, 0, nullptr);
    Datum element;
    bool isNull;
    while (array_iterate(iterator, &element, &isNull)) {
        if (!isNull)
            strings =
                lappend(strings, DatumGetCString(DirectFunctionCall1Coll(textout, InvalidOid, element)));
    }
    array_free_iterator(iterator);
    return strings;
}

// [server side] The strings in a value of type text or text[].
List *cStringsOf(Datum value, Oid type)
{
    if (type == TEXTARRAYOID)
        return textArrayElements(value);
    if (type == TEXTOID)
        return lappend(NIL, text_to_cstring(reinterpret_cast<text *>(DatumGetPointer(value))));
    return NIL;
}

} // namespace

class analyseOpExprStringArrayFunctor
{
public:
    using value_type = std::list<std::string>;

    static bool accepts(Oid type) { return type == TEXTOID || type == TEXTARRAYOID; }

    // Appends the strings of a text or text[] value; elements keep their order, NULLs are left out, arrays of
    // other dimensions than one add nothing.
    static void ExtractValue(const Datum &value, Oid type, std::list<std::string> &out)
    {
        List *strings = callServer([&] { return cStringsOf(value, type); });
        ListCell *cell;
        foreach (cell, strings)
            out.emplace_back(static_cast<const char *>(lfirst(cell)));
        callServer([&] { list_free_deep(strings); });
    }
};

class analyseOpExprIntFunctor
{
public:
    using value_type = int;

    static bool accepts(Oid type) { return type == INT4OID; }
    static void ExtractValue(const Datum &value, Oid, int &out) { out = DatumGetInt32(value); }
};

class analyseOpExprBoolFunctor
{
public:
    using value_type = bool;

    static bool accepts(Oid type) { return type == BOOLOID; }
    static void ExtractValue(const Datum &value, Oid, bool &out) { out = value != 0; }
};

template <typename F>
bool analyseExprRecurse(Expr *clause, typename F::value_type &value, AnalyseCtx &ctx, const char *columnName);

namespace
{

bool namesColumn(const Var *var, const AnalyseCtx &ctx, const char *columnName)
{
    const int index = var->varattno - 1;
    return index >= 0 && index < ctx.tupleDesc->natts &&
           std::strcmp(NameStr(TupleDescAttr(ctx.tupleDesc, index)->attname), columnName) == 0;
}

template <typename F>
bool analyseConst(const Const *constant, typename F::value_type &value, const AnalyseCtx &ctx)
{
    if (constant->constisnull || !F::accepts(constant->consttype))
        return false;
    if (ctx.extractValues)
        F::ExtractValue(constant->constvalue, constant->consttype, value);
    return true;
}

struct EvaluatedParam {
    Datum value;
    bool isNull;
};

// [server side]
EvaluatedParam evaluateParam(Param *param, PlanState *planState)
{
    EvaluatedParam result;
    ExprState *state = ExecInitExpr(reinterpret_cast<Expr *>(param), planState);
    result.value = ExecEvalExpr(state, planState->ps_ExprContext, &result.isNull);
    return result;
}

template <typename F>
bool analyseParam(Param *param, typename F::value_type &value, const AnalyseCtx &ctx)
{
    if (!F::accepts(param->paramtype) || param->paramkind != PARAM_EXTERN)
        return false;
    if (!ctx.extractValues || !ctx.planState)
        return true;

    // What the evaluation needs goes with the next row, not with the query.
    qm::server::MemoryContextScope scope(ctx.planState->ps_ExprContext->ecxt_per_tuple_memory);
    const EvaluatedParam evaluated = callServer([&] { return evaluateParam(param, ctx.planState); });
    if (evaluated.isNull)
        return false;
    F::ExtractValue(evaluated.value, param->paramtype, value);
    return true;
}

// The elements count as clauses in their own right; plain constants are never recognised. It is enough
// that one element is.
template <typename F>
bool analyseArrayExpr(ArrayExpr *array, typename F::value_type &value, AnalyseCtx &ctx,
                      const char *columnName)
{
    if (!F::accepts(array->array_typeid) || array->multidims)
        return false;
    bool recognised = false;
    ListCell *cell;
    foreach (cell, array->elements)
        recognised |= analyseExprRecurse<F>(static_cast<Expr *>(lfirst(cell)), value, ctx, columnName);
    return recognised;
}

template <typename F>
bool analyseBoolExpr(BoolExpr *clause, typename F::value_type &value, AnalyseCtx &ctx, const char *columnName)
{
    bool some = false;
    bool all = true;
    ListCell *cell;
    foreach (cell, clause->args) {
        const bool recognised =
            analyseExprRecurse<F>(static_cast<Expr *>(lfirst(cell)), value, ctx, columnName);
        some |= recognised;
        all &= recognised;
    }
    if (some && !all)
        throw FdwError(ERRCODE_FDW_ERROR, "inconsistant OR clause");
    return some;
}

} // namespace

template <typename F>
bool analyzeOpExpr(OpExpr *op, typename F::value_type &value, AnalyseCtx &ctx, const char *columnName)
{
    if (op->opno != TextEqualOperator && op->opno != ArrayEqualOperator && op->opno != Int4EqualOperator)
        return false;
    if (list_length(op->args) != 2)
        return false;

    auto *column = static_cast<Node *>(linitial(op->args));
    auto *other = static_cast<Node *>(lsecond(op->args));
    if (!IsA(column, Var))
        std::swap(column, other);
    if (!IsA(column, Var) || !namesColumn(reinterpret_cast<Var *>(column), ctx, columnName))
        return false;

    switch (nodeTag(other)) {
    case T_Const:
        return analyseConst<F>(reinterpret_cast<Const *>(other), value, ctx);
    case T_Param:
        return analyseParam<F>(reinterpret_cast<Param *>(other), value, ctx);
    case T_ArrayExpr:
        return analyseArrayExpr<F>(reinterpret_cast<ArrayExpr *>(other), value, ctx, columnName);
    default:
        if (ctx.extractValues)
            throw FdwError(ERRCODE_FDW_ERROR, "fail to extract clause of type " +
                                                  std::to_string(static_cast<int>(nodeTag(other))) + " for " +
                                                  columnName);
        return true;
    }
}

template <typename F>
bool analyseScalarArrayOpExpr(ScalarArrayOpExpr *saop, typename F::value_type &value, AnalyseCtx &ctx,
                              const char *columnName)
{
    if (saop->opno != TextEqualOperator || !saop->useOr)
        return false;
    auto *column = static_cast<Node *>(linitial(saop->args));
    auto *array = static_cast<Node *>(lsecond(saop->args));
    if (!IsA(column, Var) || !namesColumn(reinterpret_cast<Var *>(column), ctx, columnName))
        return false;
    if (IsA(array, Const))
        return analyseConst<F>(reinterpret_cast<Const *>(array), value, ctx);
    if (IsA(array, Param))
        return analyseParam<F>(reinterpret_cast<Param *>(array), value, ctx);
    return false;
}

template <typename F>
bool analyseExprRecurse(Expr *clause, typename F::value_type &value, AnalyseCtx &ctx, const char *columnName)
{
    if (IsA(clause, ScalarArrayOpExpr))
        return analyseScalarArrayOpExpr<F>(reinterpret_cast<ScalarArrayOpExpr *>(clause), value, ctx,
                                           columnName);
    if (IsA(clause, BoolExpr)) {
        auto *boolExpr = reinterpret_cast<BoolExpr *>(clause);
        return boolExpr->boolop == OR_EXPR && analyseBoolExpr<F>(boolExpr, value, ctx, columnName);
    }
    if (IsA(clause, OpExpr))
        return analyzeOpExpr<F>(reinterpret_cast<OpExpr *>(clause), value, ctx, columnName);
    return false;
}

namespace qm::pgFdw
{

bool analyseExprStringArray(Expr *clause, std::list<std::string> &values, AnalyseCtx &ctx,
                            const char *columnName)
{
    values.clear();
    return analyseExprRecurse<analyseOpExprStringArrayFunctor>(clause, values, ctx, columnName);
}

bool analyseExprInt(Expr *clause, int &value, AnalyseCtx &ctx, const char *columnName)
{
    value = 0;
    return server::guardEntry(
        [&] { return analyseExprRecurse<analyseOpExprIntFunctor>(clause, value, ctx, columnName); });
}

bool analyseExprBool(Expr *clause, bool &value, AnalyseCtx &ctx, const char *columnName)
{
    value = false;
    return server::guardEntry(
        [&] { return analyseExprRecurse<analyseOpExprBoolFunctor>(clause, value, ctx, columnName); });
}

} // namespace qm::pgFdw
