// Conditions on fields that the search carries out.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

// [server side] Reads a clause all of whose comparisons, or one of those that AND puts together, are such as
// the search makes so that no row is lost. It may find more rows: the clause must be checked on these.
bool readFieldCondition(const ScannedRelation &scanned, Node *clause, Condition &condition);

// [server side] Whether the search compares values of such a column.
bool isSearched(const ScannedRelation &scanned, const Var *column);

} // namespace qm::extension
