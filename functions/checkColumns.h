// Checks of how the columns of a foreign table are declared.
#pragma once

#include "extension/columns.h"
#include "functions/checkReport.h"

#include <vector>

namespace qm::functions
{

using Columns = std::vector<extension::Column>;

// Checks types and options, as they stand in the catalogs; returns the columns that can be used.
Columns checkColumns(Report &report, Oid relation);

// How a row names a column.
std::string nameOf(const char *column);

} // namespace qm::functions
