// What the version of the search servers changes in the requests.
#include "dialect.h"

#include <algorithm>
#include <iterator>

namespace qm::pgFdwElaticSearch
{

const Dialect &dialectOf(int32 version)
{
    // The doubled slash is the form that the search path has always had here; version 8 stopped routing it.
    static constexpr Dialect Dialects[] = {
        {0, "//_search", false, false},
        {7, "/_search", true, true},
    };
    const auto next = std::find_if(std::begin(Dialects), std::end(Dialects),
                                   [&](const Dialect &dialect) { return dialect.since > version; });
    return *std::prev(next);
}

} // namespace qm::pgFdwElaticSearch
