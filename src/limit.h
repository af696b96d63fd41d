// When may the search stop early?
#pragma once

#include "server/serverApi.h"

namespace qm::pgFdwElaticSearch
{

// How many rows of the scan the whole query needs at most, if its LIMIT says so: -1 unless every row that the
// search returns is a row of the query, in the query's order. The scan must have no conditions of its own
// left; `pushed` are those that the search carries out.
int64 planRowLimit(PlannerInfo *root, Oid foreignTableId, List *pushed);

} // namespace qm::pgFdwElaticSearch
