// Which conditions the search carries out. All of this is on the server's side of the error boundary.
#include "extension/conditions.h"
#include "extension/options.h"

namespace qm::extension
{
namespace
{

constexpr Oid TextEqualOperator = 98;

// Types that are compared as text: a relabelling between them changes nothing.
Node *withoutRelabelling(Node *expression)
{
    while (IsA(expression, RelabelType)) {
        auto *relabel = reinterpret_cast<RelabelType *>(expression);
        const Oid inner = exprType(reinterpret_cast<Node *>(relabel->arg));
        if (relabel->resulttype != TEXTOID && relabel->resulttype != VARCHAROID)
            return expression;
        if (inner != TEXTOID && inner != VARCHAROID)
            return expression;
        expression = reinterpret_cast<Node *>(relabel->arg);
    }
    return expression;
}

// The role of the relation's column that the expression is; false when it is none.
bool isColumn(const ScannedRelation &scanned, Node *expression, Role &role)
{
    expression = withoutRelabelling(expression);
    if (!IsA(expression, Var))
        return false;
    const auto *var = reinterpret_cast<Var *>(expression);
    if (var->varlevelsup != 0 || static_cast<Index>(var->varno) != scanned.relation->relid ||
        var->varattno <= 0)
        return false;
    return findRole(get_attname(scanned.tableId, var->varattno, false), role);
}

bool isKeyword(Oid tableId)
{
    const AttrNumber attribute = get_attnum(tableId, "doctype");
    ListCell *cell;
    foreach (cell, GetForeignColumnOptions(tableId, attribute)) {
        auto *option = static_cast<DefElem *>(lfirst(cell));
        if (strcmp(option->defname, "search") == 0)
            return strcmp(defGetString(option), "keyword") == 0;
    }
    return false;
}

bool isKnownToTheSearch(const ScannedRelation &scanned, Role role)
{
    return role == Role::DocName || role == Role::Param ||
           (role == Role::DocType && isKeyword(scanned.tableId));
}

// Whether the expression has the same value for all rows of the relation.
bool isFixed(const ScannedRelation &scanned, Node *expression)
{
    return !bms_is_member(static_cast<int>(scanned.relation->relid),
                          server::pullVarnos(scanned.root, expression)) &&
           !contain_volatile_functions(expression) && !contain_subplans(expression);
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

bool readCondition(const ScannedRelation &scanned, Expr *clause, Condition &condition)
{
    condition = {};
    return collect(scanned, reinterpret_cast<Node *>(clause), condition) &&
           isKnownToTheSearch(scanned, condition.role);
}

bool isSteering(const ScannedRelation &scanned, Node *expression)
{
    Role role;
    return isColumn(scanned, expression, role) && isKnownToTheSearch(scanned, role);
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
