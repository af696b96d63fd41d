// Which conditions the search carries out, and with what values.
#pragma once

#include "extension/columns.h"
#include "server/serverApi.h"

namespace qm::extension
{

// What the planner knows of a column. Plain data.
struct PlannedColumn {
    Role role;
    MappedType mapped;
};

// The relation whose conditions are looked at.
struct ScannedRelation {
    PlannerInfo *root;
    RelOptInfo *relation;
    Oid tableId;
    const PlannedColumn *columns; // one for each attribute
};

// How a column of a field is compared with a value.
enum class Comparator { Equal, Less, LessOrEqual, Greater, GreaterOrEqual, ContainsAll, Overlaps };

// How conditions on fields are put together, nodes of the server's: a comparison is a list of integers, its
// comparator, the column's attribute, and whether the value is an array of which one must do; all or one of
// several is a list of these, headed by a list of one integer.
enum class Junction { All, Any };

// A condition that the search can carry out. What the planner needs to know of it; nodes of the server's.
struct Condition {
    // DocName or Param: the column equals one of some values. Field: of what fields hold.
    Role role;
    List *values; // expressions without a column of the relation
    List *arrays; // of DocName and Param: integers, one for each of them: whether it is an array of values
    List *tree;   // of Field: how the values, one after the other, are compared
};

// [server side] Reads a clause that the search can carry out: `docname` and `param` compared by `=`, `IN` or
// `= ANY` with what has no column of the relation and is not volatile, or an OR of such comparisons; or
// comparisons of fields whose column options say how the search knows them, put together by AND and OR. False
// when it is none.
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
