// What a scan asks of the search cluster.
#pragma once

#include "extension/conditionValues.h"
#include "extension/options.h"
#include "extension/parameters.h"
#include "search/hitStream.h"

#include <vector>

namespace qm::extension
{

// The search of a scan. Throws FdwError where the parameters and the columns cannot go together.
search::SearchRequest requestOfScan(const TableOptions &options, const std::vector<Column> &columns,
                                    const Parameters &parameters, const ConditionValues &values);

// How its hits are fetched.
search::Paging pagingOfScan(const TableOptions &options, const PlanData &plan, const Parameters &parameters);

} // namespace qm::extension
