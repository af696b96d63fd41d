// What a scan asks of the search cluster.
#include "server/errorBoundary.h"

#include "extension/requestOfScan.h"

#include <algorithm>

namespace qm::extension
{
namespace
{

bool has(const std::vector<Column> &columns, Role role)
{
    return std::any_of(
        columns.begin(), columns.end(), [&](const Column &column) { return column.role == role; });
}

std::vector<std::string> fieldsOf(const std::vector<Column> &columns)
{
    std::vector<std::string> paths;
    for (const Column &column : columns)
        if (column.role == Role::Field)
            paths.push_back(column.path);
    return paths;
}

// The paths in the source of what the columns show of it.
std::vector<std::string> sourcePaths(const std::vector<Column> &columns)
{
    std::vector<std::string> paths;
    for (const Column &column : columns)
        if (!column.path.empty())
            paths.push_back(column.path);
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    return paths;
}

[[noreturn]] void refuseFilter(const char *column)
{
    throw server::FdwError(ERRCODE_FEATURE_NOT_SUPPORTED,
                           std::string("source filters shape \"doccontent\" and would shape \"") + column +
                               "\" too")
        .hinted("Leave one of the two columns out, or take one of them from a look-up of its own.");
}

search::SourceChoice sourceOfScan(const std::vector<Column> &columns, const Parameters &parameters)
{
    if (has(columns, Role::DocContent)) {
        const bool isFiltered = !parameters.sourceIncludes.empty() || !parameters.sourceExcludes.empty();
        const auto other = std::find_if(columns.begin(), columns.end(),
                                        [](const Column &column) { return !column.path.empty(); });
        if (isFiltered && other != columns.end())
            refuseFilter(other->name);
        return {true, parameters.sourceIncludes, parameters.sourceExcludes};
    }
    const std::vector<std::string> paths = sourcePaths(columns);
    return {!paths.empty(), paths, {}};
}

} // namespace

search::SearchRequest requestOfScan(const TableOptions &options, const std::vector<Column> &columns,
                                    const Parameters &parameters, const ConditionValues &values)
{
    search::SearchRequest request;
    request.indices = options.indices;
    request.query = parameters.query;
    request.filters = values.filters;
    request.highlight = has(columns, Role::Highlights) ? parameters.highlight : "";
    request.sort = parameters.sort;
    request.minScore = parameters.minScore;
    request.source = sourceOfScan(columns, parameters);
    request.fields = fieldsOf(columns);
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
    paging.partialResults = options.partialResults;
    return paging;
}

} // namespace qm::extension
