// Which conditions the search carries out. All of this is on the server's side of the error boundary.
#include "extension/conditions.h"
#include "extension/fieldConditions.h"
#include "extension/scannedColumn.h"

namespace qm::extension
{
namespace
{

constexpr Oid TextEqualOperator = 98;

// The column of a role other than Field that the expression is.
bool isColumn(const ScannedRelation &scanned, Node *expression, Role &role)
{
    const Var *column = columnIn(scanned, expression);
    if (!column)
        return false;
    role = plannedColumn(scanned, column).role;
    return role == Role::DocName || role == Role::Param;
}

bool comparesAsText(Oid operatorId, Oid collation)
{
    return operatorId == TextEqualOperator && server::isDeterministic(collation);
}

void append(Condition &condition, Node *value, int isArray)
{
    condition.values = lappend(condition.values, value);
    condition.arrays = lappend_int(condition.arrays, isArray);
}

// One comparison: its column and its value.
struct Comparison {
    Role role;
    Node *value;
    bool isArray;
};

// A comparison of a column of the relation that holds for equal values only; whatever it is compared with.
bool readComparison(const ScannedRelation &scanned, Node *clause, Comparison &comparison)
{
    if (IsA(clause, OpExpr)) {
        auto *op = reinterpret_cast<OpExpr *>(clause);
        if (!comparesAsText(op->opno, op->inputcollid) || list_length(op->args) != 2)
            return false;
        auto *left = static_cast<Node *>(linitial(op->args));
        auto *right = static_cast<Node *>(lsecond(op->args));
        comparison.isArray = false;
        comparison.value = right;
        if (isColumn(scanned, left, comparison.role))
            return true;
        comparison.value = left;
        return isColumn(scanned, right, comparison.role);
    }
    if (IsA(clause, ScalarArrayOpExpr)) {
        auto *op = reinterpret_cast<ScalarArrayOpExpr *>(clause);
        comparison.isArray = true;
        comparison.value = static_cast<Node *>(lsecond(op->args));
        return op->useOr && comparesAsText(op->opno, op->inputcollid) &&
               isColumn(scanned, static_cast<Node *>(linitial(op->args)), comparison.role);
    }
    return false;
}

// Adds the comparisons of the clause to the condition, all of whose are on one column.
bool collect(const ScannedRelation &scanned, Node *clause, Condition &condition)
{
    if (is_orclause(clause)) {
        ListCell *cell;
        foreach (cell, reinterpret_cast<BoolExpr *>(clause)->args)
            if (!collect(scanned, static_cast<Node *>(lfirst(cell)), condition))
                return false;
        return true;
    }
    Comparison comparison;
    if (!readComparison(scanned, clause, comparison) || !isFixed(scanned, comparison.value))
        return false;
    const Oid type = exprType(comparison.value);
    if (comparison.isArray ? type != TEXTARRAYOID : type != TEXTOID)
        return false;
    if (condition.values == NIL)
        condition.role = comparison.role;
    if (condition.role != comparison.role)
        return false;
    append(condition, comparison.value, comparison.isArray ? 1 : 0);
    return true;
}

} // namespace

// A part of a clause that needs `param` would leave out what the search alone can see to.
bool readCondition(const ScannedRelation &scanned, Expr *clause, Condition &condition)
{
    condition = {};
    auto *node = reinterpret_cast<Node *>(clause);
    return collect(scanned, node, condition) ||
           (!requiresParam(scanned, node) && readFieldCondition(scanned, node, condition));
}

bool isSteering(const ScannedRelation &scanned, Node *expression)
{
    const Var *column = columnIn(scanned, expression);
    return column && (plannedColumn(scanned, column).role == Role::Param || isSearched(scanned, column));
}

bool requiresParam(const ScannedRelation &scanned, Node *clause)
{
    if (is_orclause(clause) || is_andclause(clause)) {
        ListCell *cell;
        foreach (cell, reinterpret_cast<BoolExpr *>(clause)->args)
            if (requiresParam(scanned, static_cast<Node *>(lfirst(cell))))
                return true;
        return false;
    }
    Comparison comparison;
    return readComparison(scanned, clause, comparison) && comparison.role == Role::Param;
}

bool isPromotable(const ScannedRelation &scanned, RestrictInfo *restriction)
{
    return restriction_is_securely_promotable(restriction, scanned.relation);
}

} // namespace qm::extension
