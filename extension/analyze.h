// ANALYZE of a foreign table of veltranesearch.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

bool analyzeForeignTable(Relation relation, AcquireSampleRowsFunc *acquire, BlockNumber *pages);

} // namespace qm::extension
