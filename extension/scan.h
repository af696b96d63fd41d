// The executor callbacks of veltranesearch.
#pragma once

#include "search/hitStream.h"
#include "server/serverApi.h"

namespace qm::extension
{

void beginForeignScan(ForeignScanState *node, int flags);
TupleTableSlot *iterateForeignScan(ForeignScanState *node);
void reScanForeignScan(ForeignScanState *node);
void endForeignScan(ForeignScanState *node);

// What a scan has cost so far, before and after rescans.
search::Statistics statisticsOf(ForeignScanState *node);

} // namespace qm::extension
