// Checks of a foreign table against the mappings and settings of its indices.
#pragma once

#include "extension/options.h"
#include "functions/checkColumns.h"
#include "functions/checkedNode.h"

namespace qm::functions
{

// Checks that the indices take pages of the table's size, and that they know the fields of its columns as
// these say.
void checkMapping(Report &report, CheckedNode &node, const extension::TableOptions &options,
                  const Columns &columns);

} // namespace qm::functions
