// The body of a search for hits, as a user gives it.
#pragma once

#include "extension/options.h"
#include "search/hitStream.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qm::functions
{

// How far the hits of one page into the whole result may reach, by default on any cluster.
constexpr std::int64_t ResultWindow = 10000;

// A body, of which the members count that say how many hits there are and how they can be fetched.
class HitsBody
{
public:
    // `body` is a JSON object in UTF-8. Throws FdwError for a `size` or `from` that is no whole number, and
    // for what asks for something else than hits.
    explicit HitsBody(const std::string &body);

    search::SearchRequest request(const extension::TableOptions &options) const;
    search::Paging paging(const extension::TableOptions &options) const;
    // Throws FdwError unless the stream, which has come to its end after so many hits, has returned all that
    // the body asks for.
    void checkAll(const search::HitStream &hits, std::int64_t returned,
                  const extension::TableOptions &options) const;

private:
    void read(std::string_view name, std::string_view value);
    bool isOneSearch() const { return !isPageable || (size && *size <= ResultWindow && !isSliced); }
    std::int64_t sizeOfOneSearch(std::int64_t pageSize) const;

    std::string members; // all others, each with a comma behind it
    std::string tracking;
    std::optional<std::int64_t> size;
    std::int64_t from = 0;
    bool isPageable = true;
    bool isSliced = false;
    bool totalIsOfHits = true; // and not of what they are chosen from
};

} // namespace qm::functions
