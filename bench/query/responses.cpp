#include "responses.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace veltrane::bench
{
namespace
{

// Stands for the scroll id in a rendered page, near its start.
const char *const Placeholder = "THE-SCROLL-ID";

std::uint64_t numberIn(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc() || end != text.data() + text.size())
        throw std::invalid_argument("no number: " + std::string(text));
    return number;
}

// Cuts the part up to the next dash off a text.
std::string_view takePart(std::string_view &text)
{
    const std::size_t dash = std::min(text.find('-'), text.size());
    const std::string_view part = text.substr(0, dash);
    text.remove_prefix(std::min(dash + 1, text.size()));
    return part;
}

std::vector<std::string> render(const Search &search)
{
    const std::uint64_t hits = std::min(search.size, search.total);
    const std::uint64_t cycle = documentsInCycle(search.kind);
    if (hits == 0 || search.total % hits != 0 || cycle % hits != 0)
        throw std::invalid_argument("pages that do not come out even");
    std::vector<std::string> pages;
    for (std::uint64_t first = 0; first < std::min(cycle, search.total); first += hits)
        pages.push_back(makeResponse(search.kind, first, hits, search.total, Placeholder));
    return pages;
}

} // namespace

Search searchOf(std::string_view index, std::uint64_t size)
{
    const std::string kind(takePart(index));
    return {kindNamed(kind), numberIn(index), size};
}

std::string idOf(const ScrollPosition &position)
{
    const Search &search = position.search;
    return std::string(nameOf(search.kind)) + '-' + std::to_string(search.total) + '-' +
           std::to_string(search.size) + '-' + std::to_string(position.offset);
}

ScrollPosition positionOf(std::string_view scrollId)
{
    const std::string kind(takePart(scrollId));
    const std::uint64_t total = numberIn(takePart(scrollId));
    const std::uint64_t size = numberIn(takePart(scrollId));
    return {{kindNamed(kind), total, size}, numberIn(scrollId)};
}

Page Responses::page(const ScrollPosition &position)
{
    const Search &search = position.search;
    if (position.offset >= search.total)
        throw std::invalid_argument("a page beyond the last");
    std::vector<std::string> &rendered = pages[{search.kind, search.total, search.size}];
    if (rendered.empty())
        rendered = render(search);
    const std::string_view whole = rendered[position.offset / search.size % rendered.size()];
    const std::size_t id = whole.find(Placeholder);
    return {whole.substr(0, id), whole.substr(id + std::string_view(Placeholder).size())};
}

std::string_view Responses::only(const Search &search)
{
    std::string &whole = single[{search.kind, search.total, search.size}];
    if (whole.empty())
        whole = makeResponse(search.kind, 0, std::min(search.size, search.total), search.total, "");
    return whole;
}

} // namespace veltrane::bench
