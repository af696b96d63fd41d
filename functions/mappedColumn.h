// What a column of a foreign table has to do with the field that it shows.
#pragma once

#include "extension/columns.h"
#include "extension/mapping.h"
#include "functions/checkReport.h"

#include <optional>
#include <string>

namespace qm::functions
{

// What is wrong with a column, or cannot be told of it. Texts in the encoding of the database.
struct Finding {
    Verdict verdict;
    std::string detail;
    std::string hint;
};

// What keeps the values of a field, as an index maps it, from the column, or its documents from being found
// by conditions on the column; nothing where all goes together. Throws FdwError for a mapping that no option
// can tell.
std::optional<Finding> findDisagreement(const extension::Column &column, const extension::MappedField &field);

} // namespace qm::functions
