// Patterns of names of indices.
#include "extension/indexPattern.h"

#include "http/url.h"
#include "search/searchRequest.h"

#include <algorithm>

namespace qm::extension
{
namespace
{

constexpr std::string_view Everything = "_all";

bool isPattern(std::string_view part) { return part.find('*') != std::string_view::npos; }

// Whether the name is of the pattern, in which "*" stands for any characters.
bool fits(std::string_view name, std::string_view pattern)
{
    std::size_t at = 0;
    std::size_t star = std::string_view::npos; // the last one in the pattern
    std::size_t resume = 0;                    // where in the name to go on if it takes one character more
    std::size_t place = 0;
    while (at < name.size()) {
        if (place < pattern.size() && pattern[place] == '*') {
            star = place++;
            resume = at;
        } else if (place < pattern.size() && pattern[place] == name[at]) {
            ++place;
            ++at;
        } else if (star != std::string_view::npos) {
            place = star + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', place) == std::string_view::npos;
}

} // namespace

IndexPattern::IndexPattern(std::string_view text) : all(text)
{
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        std::string_view part = text.substr(begin, end - begin);
        begin = end + 1;
        if (part == Everything)
            part = "*";
        const bool excludes = !part.empty() && part.front() == '-'; // no name begins so
        if (excludes)
            part.remove_prefix(1);
        if (!part.empty())
            parts.push_back({std::string(part), excludes});
    }
}

bool IndexPattern::canMatch() const
{
    return !parts.empty() && !http::hasDotSegment(all) &&
           (all.front() != '_' || std::string_view(all).substr(0, Everything.size()) == Everything);
}

bool IndexPattern::matches(std::string_view name) const
{
    bool isMatch = false;
    for (const Part &part : parts)
        if (isMatch == part.excludes && fits(name, part.text))
            isMatch = !part.excludes;
    return isMatch;
}

std::string IndexPattern::pathPart() const { return search::pathPart(all); }

std::string IndexPattern::widePathPart() const
{
    std::string wide;
    for (const Part &part : parts)
        if (!part.excludes)
            wide += (wide.empty() ? "" : ",") + part.text + (isPattern(part.text) ? "" : "*");
    return search::pathPart(wide);
}

} // namespace qm::extension
