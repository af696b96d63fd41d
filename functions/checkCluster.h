// Checks of what a cluster has to do, and of the way to it.
#pragma once

#include "functions/checkedNode.h"

namespace qm::functions
{

// Checks how many scroll contexts are open, and how long a request is on its way.
void checkCluster(Report &report, CheckedNode &node);

} // namespace qm::functions
