// How far a query reads.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

struct Limit {
    int64 rows;   // that the query needs of the scan at most; -1 when no limit is known
    bool byScore; // they must be those of the highest scores; else any will do
};

// [server side] What the query's LIMIT means for the scan: a limit is known if nothing filters, joins or
// sorts (other than by descending score) in between.
Limit findLimit(const ScannedRelation &scanned);

} // namespace qm::extension
