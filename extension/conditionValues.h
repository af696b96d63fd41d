// The values of the conditions that the search carries out, once they are known.
#pragma once

#include "extension/fieldFilter.h"
#include "extension/planData.h"

#include <optional>
#include <string>
#include <vector>

namespace qm::extension
{

// Texts in server memory, in UTF-8.
struct TextList {
    const char **first;
    int count;

    const char *const *begin() const { return first; }
    const char *const *end() const { return first + count; }
};

// [server side] The texts of a text, or of a text[] without its NULLs.
TextList textsOf(Datum value, bool isArray);

// All texts in UTF-8.
struct ConditionValues {
    bool findsNothing = false;                   // a condition holds for no value at all
    std::optional<std::vector<std::string>> ids; // the only documents that can be meant
    std::optional<std::vector<std::string>> params;
    std::vector<std::string> filters; // that find all documents for which the conditions on fields hold
};

// Whether a document can have such an id.
bool canBeId(const std::string &id);

// Adds a condition on `docname` or `param`: one of the texts must be the value of the column.
void addCondition(ConditionValues &values, Role role, std::vector<std::string> texts);

// Adds conditions on fields.
void addFilter(ConditionValues &values, const Filter &filter);

// Evaluates the expressions (ExprState, in the order of the plan's fdw_exprs) in the scan's expression
// context. The columns must have all that the conditions are on. Throws ServerError.
ConditionValues evaluateConditions(List *conditions, List *expressions, ExprContext *context,
                                   const std::vector<Column> &columns);

} // namespace qm::extension
