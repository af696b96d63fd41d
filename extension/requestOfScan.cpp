// What a scan asks of the search cluster.
#include "server/errorBoundary.h"

#include "extension/requestOfScan.h"

#include <algorithm>

namespace qm::extension
{
namespace
{

// The field that the column doctype shows, and is searched by.
constexpr const char *TypeField = "type";

bool has(const std::vector<Column> &columns, Role role)
{
    return std::any_of(
        columns.begin(), columns.end(), [&](const Column &column) { return column.role == role; });
}

search::SourceChoice sourceOfScan(const std::vector<Column> &columns, const Parameters &parameters)
{
    search::SourceChoice source;
    const bool isFiltered = !parameters.sourceIncludes.empty() || !parameters.sourceExcludes.empty();
    if (has(columns, Role::DocContent)) {
        if (isFiltered && has(columns, Role::DocType))
            throw server::FdwError(ERRCODE_FEATURE_NOT_SUPPORTED,
                                   "source filters shape \"doccontent\" and would shape \"doctype\" too")
                .hinted("Leave one of the two columns out, or take the type from a look-up of its own.");
        source = {true, parameters.sourceIncludes, parameters.sourceExcludes};
    } else if (has(columns, Role::DocType)) {
        source = {true, {TypeField}, {}};
    }
    return source;
}

} // namespace

search::SearchRequest requestOfScan(const TableOptions &options, const std::vector<Column> &columns,
                                    const Parameters &parameters, const ConditionValues &values)
{
    search::SearchRequest request;
    request.indices = options.indices;
    request.query = parameters.query;
    for (const std::vector<std::string> &types : values.docTypes)
        request.filters.push_back(search::termsFilter(TypeField, types));
    request.highlight = has(columns, Role::Highlights) ? parameters.highlight : "";
    request.sort = parameters.sort;
    request.minScore = parameters.minScore;
    request.source = sourceOfScan(columns, parameters);
    request.needsScores = has(columns, Role::Score) || !parameters.minScore.empty();
    request.ids = values.ids;
    request.scrollTimeout = options.scrollTimeout;
    return request;
}

search::Paging pagingOfScan(const TableOptions &options, const PlanData &plan, const Parameters &parameters)
{
    // A page must not be so small that the requests cost more than the rows.
    constexpr int64 SmallestFirstPage = 100;
    search::Paging paging;
    paging.pageSize = options.batchSize;
    if (plan.rowsHint > 0)
        paging.pageSize = Min(paging.pageSize, Max(plan.rowsHint, SmallestFirstPage));
    // In another order than by score the hits of the highest scores may come last.
    const bool isOrdered = !plan.limitIsByScore || parameters.sort.empty();
    paging.limit = isOrdered ? plan.limit : -1;
    paging.limitIsByScore = plan.limitIsByScore;
    paging.isSmall = plan.isSmall;
    paging.toleratesPartial = options.partialResults == PartialResults::Warning;
    return paging;
}

} // namespace qm::extension
