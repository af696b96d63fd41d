// Searches for aggregations.
#pragma once

#include "functions/searchedTable.h"
#include "search/fetch.h"

#include <string>
#include <string_view>
#include <vector>

namespace qm::functions
{

// Asks for aggregations in place of hits, one search after the other. Throws FdwError, ServerError and
// std::bad_alloc.
class AggregationSearch
{
public:
    explicit AggregationSearch(const SearchedTable &table) : table(table), fetch({}) {}

    // The `aggregations` of the response, a JSON object in UTF-8 that is good until the next search. Both
    // arguments are JSON objects.
    std::string_view run(const std::string &query, const std::string &aggregations);
    // The request of the last search.
    const http::Request &request() const { return fetch.request(); }
    // The response to it is not what was asked for.
    [[noreturn]] void refuse(const std::string &problem) const;

private:
    const SearchedTable &table;
    search::Fetch fetch;
};

// The names of the members of a JSON object.
std::vector<std::string> namesOf(std::string_view object);

} // namespace qm::functions
