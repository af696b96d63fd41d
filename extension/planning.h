// The planner callbacks of veltranesearch.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

void getForeignRelSize(PlannerInfo *root, RelOptInfo *relation, Oid tableId);
void getForeignPaths(PlannerInfo *root, RelOptInfo *relation, Oid tableId);
ForeignScan *getForeignPlan(PlannerInfo *root, RelOptInfo *relation, Oid tableId, ForeignPath *path,
                            List *targetList, List *scanClauses, Plan *outerPlan);

// What the clauses of a relation are read with, once its size was estimated.
ScannedRelation scannedRelation(PlannerInfo *root, RelOptInfo *relation, Oid tableId);

// [server side] The conditions of a scan, as PlanData has them, and the expressions of their values. False
// when the server has to look at rows that the search finds as well, and leaves some of them out.
bool findExactConditions(const ScannedRelation &scanned, List *&conditions, List *&expressions);

} // namespace qm::extension
