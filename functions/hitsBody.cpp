// The body of a search for hits, as a user gives it.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "functions/hitsBody.h"
#include "search/failure.h"

#include <algorithm>
#include <charconv>

namespace qm::functions
{

using server::FdwError;

namespace
{

// What a scroll does not take.
constexpr std::string_view Unpageable[] = {"collapse", "rescore", "search_after", "knn", "retriever", "rank"};

// What the response would bring beside the hits.
constexpr std::string_view Others[] = {"aggs", "aggregations", "suggest"};

template <std::size_t size>
bool isAmong(const std::string_view (&names)[size], std::string_view name)
{
    return std::find(names, names + size, name) != names + size;
}

std::int64_t wholeNumber(std::string_view name, std::string_view value)
{
    std::int64_t number = 0;
    const auto [end, problem] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (problem != std::errc() || end != value.data() + value.size() || number < 0)
        throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                       "\"" + std::string(name) + "\" of the body takes a whole number from 0 on")
            .detailed(search::quoted(value));
    return number;
}

} // namespace

HitsBody::HitsBody(const std::string &body)
{
    zq::elasticsearch::readJson(
        body,
        [&](zq::elasticsearch::JsonCursor &cursor) {
            forEachMember(
                cursor,
                [&](std::string_view name) {
                    const std::string known(name);
                    read(known, cursor.value());
                });
        });
}

void HitsBody::read(std::string_view name, std::string_view value)
{
    if (isAmong(Others, name))
        throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                       "\"" + std::string(name) + "\" of the body asks for something else than hits")
            .hinted("The functions veltranesearch_aggregate, veltranesearch_buckets and "
                    "veltranesearch_terms return aggregations.");
    const std::string member = search::jsonString(name) + ":" + std::string(value) + ",";
    if (name == "size") {
        size = wholeNumber(name, value);
        return;
    }
    if (name == "track_total_hits") {
        tracking = member;
        return;
    }
    if (name == "from")
        from = wholeNumber(name, value);
    isPageable = isPageable && !isAmong(Unpageable, name) && from == 0;
    isSliced = isSliced || name == "slice";
    totalIsOfHits = totalIsOfHits && name != "collapse" && name != "search_after";
    members += member;
}

search::SearchRequest HitsBody::request(const extension::TableOptions &options) const
{
    // Whoever says how many hits are wanted need not have all of them counted.
    const bool needsTotal = !isOneSearch() || !size;
    search::SearchRequest request;
    request.indices = options.indices;
    request.scrollTimeout = options.scrollTimeout;
    request.body = members + (needsTotal ? R"("track_total_hits":true,)" : tracking);
    return request;
}

search::Paging HitsBody::paging(const extension::TableOptions &options) const
{
    search::Paging paging;
    paging.pageSize = options.batchSize;
    paging.partialResults = options.partialResults;
    if (isOneSearch()) {
        paging.requests = search::Requests::One;
        paging.limit = sizeOfOneSearch(options.batchSize);
    } else if (size) {
        paging.requests = search::Requests::Scroll;
        paging.limit = *size;
        paging.pageSize = std::clamp<std::int64_t>(*size, 1, paging.pageSize);
    } else if (isSliced) {
        paging.requests = search::Requests::Scroll;
    } else {
        paging.isSmall = true;
    }
    return paging;
}

std::int64_t HitsBody::sizeOfOneSearch(std::int64_t pageSize) const
{
    // One more than are wanted tells whether there are more, also where the total is not one of hits.
    return size ? *size : std::clamp<std::int64_t>(ResultWindow - from, 1, pageSize + 1);
}

void HitsBody::checkAll(const search::HitStream &hits, std::int64_t returned,
                        const extension::TableOptions &options) const
{
    const std::int64_t asked = sizeOfOneSearch(options.batchSize);
    if (!isOneSearch() || asked == 0)
        return;
    const std::int64_t there = std::max<std::int64_t>(hits.summary().total - from, 0);
    if (totalIsOfHits && hits.summary().hasTotal && returned < std::min(asked, there))
        throw FdwError(ERRCODE_FDW_ERROR, "the search cluster did not return all hits")
            .detailed(std::to_string(returned) + " hits arrived, " + std::to_string(there) +
                      " are said to match.");
    if (!size && returned == asked && returned < there)
        throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                       "the search finds more hits than it returns, and cannot be paged")
            .detailed(std::to_string(returned) + " hits arrived, " + std::to_string(there) +
                      " documents match.")
            .hinted("Say with \"size\" in the body how many hits are wanted.");
}

} // namespace qm::functions
