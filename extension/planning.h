// The planner callbacks of veltranesearch.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

void getForeignRelSize(PlannerInfo *root, RelOptInfo *relation, Oid tableId);
void getForeignPaths(PlannerInfo *root, RelOptInfo *relation, Oid tableId);
ForeignScan *getForeignPlan(PlannerInfo *root, RelOptInfo *relation, Oid tableId, ForeignPath *path,
                            List *targetList, List *scanClauses, Plan *outerPlan);

} // namespace qm::extension
