// The responses of the page server, rendered once and kept.
#pragma once

#include "documentCycle.h"

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace veltrane::bench
{

// A search of an index: what its name and a request say of the responses.
struct Search {
    DocumentKind kind;
    std::uint64_t total; // documents that match
    std::uint64_t size;  // most hits of a response
};

// The search of `size` hits of an index named KIND-TOTAL, as "2KB-100000". Throws std::invalid_argument for
// any other name.
Search searchOf(std::string_view index, std::uint64_t size);

// Where a scroll goes on. The id says all of it: KIND-TOTAL-SIZE-OFFSET.
struct ScrollPosition {
    Search search;
    std::uint64_t offset; // the first document of the page
};

std::string idOf(const ScrollPosition &position);
// Throws std::invalid_argument for a text that is no such id.
ScrollPosition positionOf(std::string_view scrollId);

// A page without its scroll id, which belongs between the two parts.
struct Page {
    std::string_view beforeId, afterId;
};

// What it returns lives as long as it does.
class Responses
{
public:
    // The page of a scroll at that position. Throws std::invalid_argument if the pages do not come out
    // even or there is none.
    Page page(const ScrollPosition &position);
    // The only response of a search without a scroll.
    std::string_view only(const Search &search);

private:
    using Key = std::tuple<DocumentKind, std::uint64_t, std::uint64_t>;
    std::map<Key, std::vector<std::string>> pages;
    std::map<Key, std::string> single;
};

} // namespace veltrane::bench
