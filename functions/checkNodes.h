// Checks of the nodes of a cluster, from the name of the host to the version.
#pragma once

#include "functions/checkedNode.h"

namespace qm::functions
{

// Checks each node on a new connection; returns the first that can be asked further, if there is one.
std::optional<CheckedNode> checkNodes(Report &report, Oid server, const search::Cluster &cluster);

} // namespace qm::functions
