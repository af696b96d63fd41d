// The columns that a query uses, and compressed bytea values.
#include "quelmoraPgFdwConnectorBase.h"
#include "server/memory.h"

namespace qm::pgFdw
{
namespace
{

const char *columnNameOf(const Var *var, tupleDesc *descriptor)
{
    const int index = var->varattno - 1;
    if (index < 0 || index >= descriptor->natts)
        throw server::FdwError(ERRCODE_FDW_ERROR, "fail to retrieve column name");
    return NameStr(TupleDescAttr(descriptor, index)->attname);
}

void parseVarNames(List *expressions, tupleDesc *descriptor, ColumnNameCallback callback, void *userData)
{
    ListCell *cell;
    foreach (cell, expressions)
        parseVarName(static_cast<Expr *>(lfirst(cell)), descriptor, callback, userData);
}

} // namespace

void parseVarName(Expr *expression, tupleDesc *descriptor, ColumnNameCallback callback, void *userData)
{
    if (!expression)
        return;
    const auto parse = [&](Expr *part) { parseVarName(part, descriptor, callback, userData); };
    const auto parseAll = [&](List *parts) { parseVarNames(parts, descriptor, callback, userData); };

    switch (nodeTag(expression)) {
    case T_Var:
        callback(columnNameOf(reinterpret_cast<Var *>(expression), descriptor), userData);
        break;
    case T_FuncExpr:
        parseAll(reinterpret_cast<FuncExpr *>(expression)->args);
        break;
    case T_OpExpr:
        parseAll(reinterpret_cast<OpExpr *>(expression)->args);
        break;
    case T_ScalarArrayOpExpr:
        parseAll(reinterpret_cast<ScalarArrayOpExpr *>(expression)->args);
        break;
    case T_CoerceViaIO:
        parse(reinterpret_cast<CoerceViaIO *>(expression)->arg);
        break;
    case T_CaseExpr: {
        auto *caseExpr = reinterpret_cast<CaseExpr *>(expression);
        parse(caseExpr->defresult);
        parse(caseExpr->arg);
        parseAll(caseExpr->args);
        break;
    }
    case T_CaseWhen:
        parse(reinterpret_cast<CaseWhen *>(expression)->expr);
        parse(reinterpret_cast<CaseWhen *>(expression)->result);
        break;
    default:
        break;
    }
}

void iterateOverRequestedColumns(unsigned int relationId, ForeignScanState *node, ColumnNameCallback callback,
                                 void *userData)
{
    server::withTupleDesc(
        relationId,
        [&](tupleDesc *descriptor) {
            iterateOverPlan(relationId, callback, userData, node->ss.ps.state->es_plannedstmt->planTree,
                            descriptor);
        });
}

void CompressData(const char *data, unsigned int length, varlena *&out, int level)
{
    server::DeflateStream stream{CurrentMemoryContext, nullptr, 0};
    server::compressBytes(data, length, out, level, stream);
    server::closeStream(stream);
}

} // namespace qm::pgFdw

void iterateOverPlan(unsigned int relationId, qm::pgFdw::ColumnNameCallback callback, void *userData,
                     Plan *plan, tupleDesc *const &descriptor)
{
    for (; plan; plan = plan->righttree) {
        ListCell *cell;
        foreach (cell, plan->targetlist) {
            auto *entry = static_cast<TargetEntry *>(lfirst(cell));
            if (!IsA(entry, TargetEntry) || entry->resorigtbl != relationId)
                continue;
            // A whole-row reference has origin column 0: it names no column.
            const int index = entry->resorigcol - 1;
            if (index >= 0 && index < descriptor->natts)
                callback(NameStr(TupleDescAttr(descriptor, index)->attname), userData);
        }
        if (plan->lefttree)
            iterateOverPlan(relationId, callback, userData, plan->lefttree, descriptor);
    }
}
