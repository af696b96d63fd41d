// Checks of what the catalogs say of a foreign server, and of who uses it.
#pragma once

#include "functions/checkReport.h"
#include "search/cluster.h"

#include <optional>

namespace qm::functions
{

// Odd: there are names that nothing takes notice of.
enum class Soundness { Sound, Odd, Unusable };

// Reports what is wrong with the options of an object, as the catalogs hold them.
Soundness reportFaults(Report &report, const std::string &what, List *definitions, Oid catalog);

// Checks the options of a server and those of the current user's mapping; returns what they say, if that can
// be used.
std::optional<search::Cluster> checkServerOptions(Report &report, Oid server);

} // namespace qm::functions
