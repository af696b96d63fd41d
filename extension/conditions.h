// Which conditions the search carries out, and with what values.
#pragma once

#include "extension/columns.h"
#include "server/serverApi.h"

namespace qm::extension
{

// A condition that a column equals one of some values. What the planner needs to know of it; nodes of the
// server's.
struct Condition {
    Role role;
    List *values; // expressions without a column of the relation
    List *arrays; // integers, one for each of them: whether it is an array of values
};

// The relation whose conditions are looked at.
struct ScannedRelation {
    PlannerInfo *root;
    RelOptInfo *relation;
    Oid tableId;
};

// [server side] Reads a clause that the search can carry out: `docname`, `param`, or `doctype` where its
// column option says that the search knows it, compared by `=`, `IN` or `= ANY` with what has no column of
// the relation and is not volatile, or an OR of such comparisons. False when it is none.
bool readCondition(const ScannedRelation &scanned, Expr *clause, Condition &condition);

// [server side] Whether the expression is a column by which the search can be asked.
bool isSteering(const ScannedRelation &scanned, Node *expression);

// [server side] Whether the clause holds only if `param` equals something: such a clause must be carried out
// by the search, or nothing is found.
bool requiresParam(const ScannedRelation &scanned, Node *clause);

// [server side] Whether a condition may be checked before all others of the relation: nobody learns from it
// of rows that a security barrier hides.
bool isPromotable(const ScannedRelation &scanned, RestrictInfo *restriction);

} // namespace qm::extension
