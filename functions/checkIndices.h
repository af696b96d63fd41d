// Checks of the indices of a foreign table.
#pragma once

#include "functions/checkedNode.h"

namespace qm::functions
{

// Checks that the indices, as they stand in a path, are there and can be searched, and how their shards are.
// Returns whether they are there.
bool checkIndices(Report &report, CheckedNode &node, const std::string &indices);

} // namespace qm::functions
