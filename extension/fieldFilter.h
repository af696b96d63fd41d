// Filters of a search that are implied by conditions on fields.
#pragma once

#include "extension/conditions.h"
#include "extension/searchValues.h"

#include <functional>
#include <string>
#include <vector>

namespace qm::extension
{

// What a condition makes of the search: a filter, a JSON object, that finds all documents for which it holds,
// and maybe more; or it holds for none; or nothing can be said, so all documents are wanted.
struct Filter {
    enum class Reach { Nothing, Some, Everything };
    Reach reach;
    std::string json; // of Some
};

// The filter for a column that is compared with one of the values (with all of them, where it is to contain
// them). It takes in what an index keeps of a number or a date: bounds are inclusive, and wider by a unit.
Filter fieldFilter(const Column &column, Comparator comparator, const SearchValues &values);

// What is shown of a filter whose values, a text, are not known yet.
Filter unknownFilter(const Column &column, Comparator comparator, const std::string &values);

// The filter of a condition on fields (Condition::tree): `filterOf` makes that of a comparison, one after the
// other. The columns must have all that are compared.
Filter filterOfTree(List *tree, const std::vector<Column> &columns,
                    const std::function<Filter(const Column &column, Comparator comparator)> &filterOf);

// What finds all that all of the filters find, or all that any of them finds.
Filter joinFilters(Junction junction, const std::vector<Filter> &filters);

} // namespace qm::extension
