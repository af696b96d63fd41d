// Searches for aggregations.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "functions/aggregation.h"
#include "search/failure.h"
#include "search/partial.h"
#include "search/searchRequest.h"

namespace qm::functions
{

std::vector<std::string> namesOf(std::string_view object)
{
    std::vector<std::string> names;
    zq::elasticsearch::readJson(object, [&](zq::elasticsearch::JsonCursor &cursor) {
        forEachMember(cursor, [&](std::string_view name) {
            names.emplace_back(name);
            cursor.value();
        });
    });
    return names;
}

std::string_view AggregationSearch::run(const std::string &query, const std::string &aggregations)
{
    fetch.send(
        table.session,
        {http::Method::Post, search::searchPath(table.options.indices),
         R"({"query":)" + query + R"(,"size":0,"track_total_hits":false,"aggs":)" + aggregations + "}"},
        search::Purpose::Search);
    fetch.finish();
    search::Statistics page;
    page.pages = 1;
    table.session->spent.add(page);
    search::checkWhole(fetch.response(), request(), table.options.partialResults);
    if (fetch.response().hitCount() > 0)
        refuse("hits where none were asked for");
    const std::string_view found = fetch.response().aggregations();
    if (found.empty() || found.front() != '{')
        refuse("no aggregations");
    return found;
}

void AggregationSearch::refuse(const std::string &problem) const
{
    throw search::unreadable(request(), problem);
}

} // namespace qm::functions
