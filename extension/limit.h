// How far a query reads.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

// [server side] How many rows of the scan the query needs at most, if nothing filters, joins or sorts (other
// than by descending score) between it and the query's LIMIT; -1 when no limit is known.
int64 findLimit(const ScannedRelation &scanned);

} // namespace qm::extension
