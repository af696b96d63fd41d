// The executor callbacks of veltranesearch.
#pragma once

#include "extension/planData.h"
#include "search/hitStream.h"

#include <vector>

namespace qm::extension
{

void beginForeignScan(ForeignScanState *node, int flags);
TupleTableSlot *iterateForeignScan(ForeignScanState *node);
void reScanForeignScan(ForeignScanState *node);
bool recheckForeignScan(ForeignScanState *node, TupleTableSlot *slot);
void endForeignScan(ForeignScanState *node);

// The columns that a scan shows: of the hits, none where it counts them. Throws FdwError like readColumns.
std::vector<Column> columnsOfScan(ForeignScanState *node, const PlanData &plan);

// What a scan has cost so far, before and after rescans.
search::Statistics statisticsOf(ForeignScanState *node);

} // namespace qm::extension
