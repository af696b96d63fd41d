// What the version of the search servers changes in the requests.
#pragma once

#include "server/serverApi.h"

namespace qm::pgFdwElaticSearch
{

// Each row holds from its major version on, until the next.
struct Dialect {
    int32 since;
    const char *searchPath;  // of standard mode, behind the indices
    bool scrollIdInBody;     // of the requests of a scroll; else in their URL
    bool countsOnDemandOnly; // a search counts no further than 10,000 hits unless it is asked to; a scroll
                             // counts all
};

// The dialect of a major version; 0 where it is not told.
const Dialect &dialectOf(int32 version);

} // namespace qm::pgFdwElaticSearch
