// Columns of a scanned relation as they stand in its conditions.
#pragma once

#include "extension/conditions.h"

namespace qm::extension
{

// [server side] The relation's column that the expression is, as it is or as text; null when it is none.
const Var *columnIn(const ScannedRelation &scanned, Node *expression);

// [server side] What the planner knows of that column.
inline const PlannedColumn &plannedColumn(const ScannedRelation &scanned, const Var *column)
{
    return scanned.columns[column->varattno - 1];
}

// [server side] Whether the expression has the same value for all rows of the relation.
bool isFixed(const ScannedRelation &scanned, Node *expression);

} // namespace qm::extension
