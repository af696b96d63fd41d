// The clauses on docname, param and doctype.
#include "clauses.h"
#include "quelmoraPgFdwConnectorBase.h"
#include "server/memory.h"

namespace qm::pgFdwElaticSearch
{

using server::callServer;
using server::FdwError;

namespace
{

enum class Steering { None, DocNames, Params, DocTypes };

// Which steering column the clause is for; its values go to `values`.
Steering classify(Expr *clause, std::list<std::string> &values, qm::pgFdw::AnalyseCtx &ctx)
{
    if (qm::pgFdw::analyseExprStringArray(clause, values, ctx, "docname"))
        return Steering::DocNames;
    if (qm::pgFdw::analyseExprStringArray(clause, values, ctx, "param"))
        return Steering::Params;
    if (qm::pgFdw::analyseExprStringArray(clause, values, ctx, "doctype"))
        return Steering::DocTypes;
    return Steering::None;
}

} // namespace

void ScanExpressions(List **clauses, unsigned int relationId, List *&pushedClauses,
                     std::unique_ptr<std::list<std::string>> &docNameValues,
                     std::list<std::string> &paramValues, std::list<std::string> &docTypeValues,
                     ForeignScanState *node, bool removeMatched)
{
    const auto scan = [&](tupleDesc *descriptor) {
        if (*clauses == NIL)
            return;
        qm::pgFdw::AnalyseCtx ctx(descriptor, node ? &node->ss.ps : nullptr, node != nullptr);
        List *kept = NIL;
        ListCell *cell;
        foreach (cell, *clauses) {
            auto *clause = static_cast<Expr *>(lfirst(cell));
            std::list<std::string> values;
            const Steering steering = classify(clause, values, ctx);
            switch (steering) {
            case Steering::DocNames:
                // An empty list of ids looks up nothing, which is not the same as no clause at all.
                if (node && !docNameValues)
                    docNameValues = std::make_unique<std::list<std::string>>();
                if (node)
                    docNameValues->splice(docNameValues->end(), values);
                break;
            case Steering::Params:
                if (!paramValues.empty())
                    throw FdwError(ERRCODE_FDW_ERROR, "need only one param clause");
                if (node)
                    paramValues.swap(values);
                break;
            case Steering::DocTypes:
                if (node)
                    docTypeValues.splice(docTypeValues.end(), values);
                break;
            case Steering::None:
                break;
            }
            if (!removeMatched)
                continue;
            if (steering == Steering::None)
                callServer([&] { kept = lappend(kept, clause); });
            else if (!node)
                callServer([&] { pushedClauses = lappend(pushedClauses, clause); });
        }
        if (removeMatched) {
            callServer([&] { list_free(*clauses); });
            *clauses = kept;
        }
    };
    server::withTupleDesc(relationId, scan);
}

} // namespace qm::pgFdwElaticSearch
