// Conditions on fields that the search carries out. All of this is on the server's side of the error
// boundary.
#include "extension/fieldConditions.h"
#include "extension/scannedColumn.h"

namespace qm::extension
{
namespace
{

constexpr Oid ArrayOverlapsOperator = 2750;
constexpr Oid ArrayContainsOperator = 2751;
constexpr Oid ArrayContainedOperator = 2752;

// What is known of the values of a column, or of the elements of an array.
struct Compared {
    Oid type; // below domains; text for all that is compared as such
    bool isArray;
};

Compared comparedValues(Oid type)
{
    Oid base = getBaseType(type);
    const Oid element = get_element_type(base);
    if (OidIsValid(element))
        base = getBaseType(element);
    return {base == VARCHAROID ? TEXTOID : base, OidIsValid(element)};
}

bool isNumber(Oid type)
{
    return type == INT2OID || type == INT4OID || type == INT8OID || type == FLOAT4OID || type == FLOAT8OID ||
           type == NUMERICOID;
}

// The pairs of a column's type and a mapped type that are compared alike, so far as the request can say it.
bool isPair(Oid type, MappedType mapped)
{
    switch (mapped) {
    case MappedType::None:
        return false;
    case MappedType::Keyword:
        return type == TEXTOID || type_is_enum(type);
    case MappedType::Date:
        return type == DATEOID || type == TIMESTAMPOID || type == TIMESTAMPTZOID;
    case MappedType::Boolean:
        return type == BOOLOID;
    case MappedType::Ip:
        return type == INETOID;
    default:
        return isNumber(type);
    }
}

// Whether values of the type can be told to the search when compared with a column of the other. A time zone
// of the session's must not decide what a column's value is.
bool canBeTold(Oid value, Oid column)
{
    if (isNumber(column))
        return isNumber(value);
    if (column == TIMESTAMPTZOID)
        return value == TIMESTAMPTZOID || value == TIMESTAMPOID || value == DATEOID;
    if (column == TIMESTAMPOID || column == DATEOID)
        return value == TIMESTAMPOID || value == DATEOID;
    return value == column;
}

// The comparator of an operator of the server's own, as the type sorts.
bool findComparator(Oid operatorId, Oid type, Comparator &comparator)
{
    constexpr Comparator ByStrategy[] = {Comparator::Less, Comparator::LessOrEqual, Comparator::Equal,
                                         Comparator::GreaterOrEqual, Comparator::Greater};
    const Oid family = lookup_type_cache(type, TYPECACHE_BTREE_OPFAMILY)->btree_opf;
    if (!OidIsValid(family) || family >= FirstNormalObjectId || operatorId >= FirstNormalObjectId)
        return false;
    const int strategy = get_op_opfamily_strategy(operatorId, family);
    if (strategy < BTLessStrategyNumber || strategy > BTGreaterStrategyNumber)
        return false;
    comparator = ByStrategy[strategy - BTLessStrategyNumber];
    return true;
}

// Texts, networks and enums have another order in the index.
bool isOrderedAlike(Oid type) { return isNumber(type) || canBeTold(DATEOID, type); }

bool isKnownToTheSearch(const PlannedColumn &column, Oid type)
{
    const bool hasField = column.role == Role::Field || column.role == Role::DocType;
    return (hasField && isPair(type, column.mapped)) || column.role == Role::DocName;
}

bool addComparison(Condition &condition, List *&node, Comparator comparator, const Var *column, Node *value,
                   bool isArray)
{
    node = list_make3_int(static_cast<int>(comparator), column->varattno, isArray ? 1 : 0);
    condition.values = lappend(condition.values, value);
    return true;
}

// `column operator value`, with the column at either side.
bool readOperator(const ScannedRelation &scanned, OpExpr *op, Condition &condition, List *&node)
{
    if (list_length(op->args) != 2)
        return false;
    auto *value = static_cast<Node *>(lsecond(op->args));
    const Var *column = columnIn(scanned, static_cast<Node *>(linitial(op->args)));
    Oid operatorId = op->opno;
    if (!column) {
        value = static_cast<Node *>(linitial(op->args));
        column = columnIn(scanned, static_cast<Node *>(lsecond(op->args)));
        operatorId = get_commutator(operatorId);
    }
    if (!column || !isFixed(scanned, value))
        return false;
    const Compared compared = comparedValues(column->vartype);
    const Compared given = comparedValues(exprType(value));
    if (!isKnownToTheSearch(plannedColumn(scanned, column), compared.type) ||
        !canBeTold(given.type, compared.type) || compared.isArray != given.isArray ||
        !server::isDeterministic(op->inputcollid))
        return false;
    Comparator comparator;
    if (compared.isArray) {
        if (operatorId != ArrayContainsOperator && operatorId != ArrayOverlapsOperator)
            return false;
        comparator = operatorId == ArrayContainsOperator ? Comparator::ContainsAll : Comparator::Overlaps;
        return addComparison(condition, node, comparator, column, value, true);
    }
    if (!findComparator(operatorId, compared.type, comparator) ||
        (comparator != Comparator::Equal && !isOrderedAlike(compared.type)))
        return false;
    return addComparison(condition, node, comparator, column, value, false);
}

// `column = ANY (values)`, or `value = ANY (column)`.
bool readAny(const ScannedRelation &scanned, ScalarArrayOpExpr *op, Condition &condition, List *&node)
{
    auto *left = static_cast<Node *>(linitial(op->args));
    auto *right = static_cast<Node *>(lsecond(op->args));
    const Var *leftColumn = columnIn(scanned, left);
    const Var *column = leftColumn ? leftColumn : columnIn(scanned, right);
    Node *value = leftColumn ? right : left;
    if (!op->useOr || !column || !isFixed(scanned, value) || !server::isDeterministic(op->inputcollid))
        return false;
    const Compared compared = comparedValues(column->vartype);
    const Compared given = comparedValues(exprType(value));
    Comparator comparator;
    if (!isKnownToTheSearch(plannedColumn(scanned, column), compared.type) ||
        !canBeTold(given.type, compared.type) || compared.isArray == given.isArray ||
        compared.isArray == (leftColumn != nullptr) || !findComparator(op->opno, compared.type, comparator) ||
        comparator != Comparator::Equal)
        return false;
    return addComparison(condition, node, Comparator::Equal, column, value, given.isArray);
}

// A column of truth values stands for itself.
bool readTruth(const ScannedRelation &scanned, Node *expression, bool isTrue, Condition &condition,
               List *&node)
{
    const Var *column = columnIn(scanned, expression);
    if (!column || getBaseType(column->vartype) != BOOLOID ||
        !isKnownToTheSearch(plannedColumn(scanned, column), BOOLOID))
        return false;
    return addComparison(condition, node, Comparator::Equal, column, makeBoolConst(isTrue, false), false);
}

bool readNode(const ScannedRelation &scanned, Node *clause, Condition &condition, List *&node);

// All of what is put together by AND may be left out but one; nothing by OR.
bool readJunction(const ScannedRelation &scanned, BoolExpr *expression, Condition &condition, List *&node)
{
    const Junction junction = expression->boolop == AND_EXPR ? Junction::All : Junction::Any;
    List *parts = NIL;
    ListCell *cell;
    foreach (cell, expression->args) {
        List *part = NIL;
        const int before = list_length(condition.values);
        if (readNode(scanned, static_cast<Node *>(lfirst(cell)), condition, part)) {
            parts = lappend(parts, part);
            continue;
        }
        if (junction == Junction::Any)
            return false;
        condition.values = list_truncate(condition.values, before);
    }
    node = lcons(list_make1_int(static_cast<int>(junction)), parts);
    return parts != NIL;
}

bool readNode(const ScannedRelation &scanned, Node *clause, Condition &condition, List *&node)
{
    check_stack_depth();
    if (IsA(clause, OpExpr))
        return readOperator(scanned, reinterpret_cast<OpExpr *>(clause), condition, node);
    if (IsA(clause, ScalarArrayOpExpr))
        return readAny(scanned, reinterpret_cast<ScalarArrayOpExpr *>(clause), condition, node);
    if (!IsA(clause, BoolExpr))
        return readTruth(scanned, clause, true, condition, node);
    auto *expression = reinterpret_cast<BoolExpr *>(clause);
    if (expression->boolop == NOT_EXPR)
        return readTruth(scanned, static_cast<Node *>(linitial(expression->args)), false, condition, node);
    return readJunction(scanned, expression, condition, node);
}

} // namespace

bool isSearched(const ScannedRelation &scanned, const Var *column)
{
    return isKnownToTheSearch(plannedColumn(scanned, column), comparedValues(column->vartype).type);
}

bool readFieldCondition(const ScannedRelation &scanned, Node *clause, Condition &condition)
{
    condition = {};
    condition.role = Role::Field;
    return readNode(scanned, clause, condition, condition.tree);
}

} // namespace qm::extension
