// What EXPLAIN tells of a scan.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

// With VERBOSE the request; with ANALYZE what the scan has cost. Evaluates and sends nothing.
void explainForeignScan(ForeignScanState *node, ExplainState *state);

} // namespace qm::extension
