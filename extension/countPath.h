// Counts that the search cluster makes: count(*) over a relation that the search alone decides on.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

// The planner callback for what is done with the rows of a relation: offers a path where they are only
// counted.
void getForeignUpperPaths(PlannerInfo *root, UpperRelationKind stage, RelOptInfo *input, RelOptInfo *output);

// [server side] The plan of such a path: a scan without a relation, whose one row has one column, the count.
ForeignScan *makeCountPlan(ForeignPath *path, List *targetList);

} // namespace qm::extension
