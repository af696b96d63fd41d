// What a query asks for: the clauses on docname, param and doctype, the parameters in param values, and the
// plan-time description.
#include "quelmoraPgFdwElasticSearchConnector.h"

#include <cstring>

#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwElasticSearchParams.h"
#include "quelmoraPgFdwEncoding.h"

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::FdwError;

namespace
{

// In the order in which the names are compared.
constexpr struct {
    const char *name;
    Column column;
} ColumnNames[] = {
    {"doccontent", DocContent}, {"score", Score},           {"docname", DocName},
    {"param", ParamColumn},     {"highlights", Highlights}, {"doctype", DocType},
};

bool setColumnFlag(const char *columnName, void *flags)
{
    for (const auto &known : ColumnNames) {
        if (std::strcmp(columnName, known.name) == 0) {
            static_cast<char *>(flags)[known.column] = 1;
            return true;
        }
    }
    return false;
}

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

void parseEsSearchVarNameCallback(const char *columnName, void *flags)
{
    if (setColumnFlag(columnName, flags))
        return;
    callServer([&] {
        ereport(WARNING, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                          errmsg_internal("unhandled column %s", columnName)));
    });
}

void flagReferencedColumns(Node *expression, tupleDesc *descriptor, void *flags)
{
    List *vars = callServer([&] {
        return pull_var_clause(expression,
                               PVC_RECURSE_AGGREGATES | PVC_RECURSE_WINDOWFUNCS | PVC_RECURSE_PLACEHOLDERS);
    });
    ListCell *cell;
    foreach (cell, vars) {
        const AttrNumber number = static_cast<Var *>(lfirst(cell))->varattno;
        if (number == 0)
            std::memset(flags, 1, ColumnCount); // the whole row
        else if (number > 0 && number <= descriptor->natts)
            setColumnFlag(NameStr(TupleDescAttr(descriptor, number - 1)->attname), flags);
    }
}

void CreateConnectorStep1(List **clauses, PathTarget *target, unsigned int foreignTableId,
                          std::vector<char> &description, List *&fdwExprs, PlannerInfo *root)
{
    description.assign(DescriptionSize, 0);
    std::unique_ptr<std::list<std::string>> docNames;
    std::list<std::string> params;
    std::list<std::string> docTypes;
    ScanExpressions(clauses, foreignTableId, fdwExprs, docNames, params, docTypes, nullptr, true);
    const int64 limit = *clauses == NIL ? planRowLimit(root, foreignTableId, fdwExprs) : -1;
    std::memcpy(description.data(), &limit, sizeof limit);

    char *flags = description.data() + DescriptionFlags;
    qm::pgFdw::withTupleDesc(foreignTableId, [&](tupleDesc *descriptor) {
        ListCell *cell;
        foreach (cell, target->exprs)
            qm::pgFdw::parseVarName(static_cast<Expr *>(lfirst(cell)), descriptor,
                                    parseEsSearchVarNameCallback, flags);
    });
}

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
    qm::pgFdw::withTupleDesc(relationId, scan);
}

int parseCompressionLevel(const char *text)
{
    int level = 0;
    if (!readCompressionLevel(text, level))
        throw FdwError(ERRCODE_FDW_ERROR, "'compressionlevel' should be in range [-2;9]");
    return level;
}

char *replaceString(char *previous, const char *text)
{
    return callServer([&] {
        if (previous)
            pfree(previous);
        return pstrdup(text);
    });
}

List *appendText(List *list, const char *string)
{
    return callServer([&] {
        return lappend(list,
                       DatumGetPointer(DirectFunctionCall1Coll(textin, InvalidOid, CStringGetDatum(string))));
    });
}

namespace
{

const char *toUtf8(const char *string)
{
    return callServer([&] { return serverToUtf8(string); });
}

} // namespace

void ParseParam(const std::list<std::string> &paramValues, int &paramCompressionLevel, char *&query,
                char *&highlight, List *&sourceIncludeFilter, List *&sourceExcludeFilter)
{
    for (const std::string &param : paramValues) {
        const auto [name, value] = splitParam(param);
        switch (name) {
        case ParamName::Malformed:
            throw FdwError(ERRCODE_FDW_ERROR, "Malformed fdw param " + param + " ");
        case ParamName::Unknown:
            throw FdwError(ERRCODE_FDW_ERROR, "Unknown fdw param " + param + " ");
        case ParamName::Query:
            query = replaceString(query, toUtf8(value));
            break;
        case ParamName::SourceIncludeFilter:
            sourceIncludeFilter = appendText(sourceIncludeFilter, toUtf8(value));
            break;
        case ParamName::SourceExcludeFilter:
            sourceExcludeFilter = appendText(sourceExcludeFilter, toUtf8(value));
            break;
        case ParamName::CompressionLevel:
            paramCompressionLevel = parseCompressionLevel(value);
            break;
        case ParamName::Highlight:
            highlight = replaceString(highlight, toUtf8(value));
            break;
        }
    }
}

} // namespace qm::pgFdwElaticSearch
