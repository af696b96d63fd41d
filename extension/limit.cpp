// How far a query reads: the planner's figure is how many rows the whole query returns, which limits the scan
// only where nothing stands in between.
#include "extension/limit.h"

namespace qm::extension
{
namespace
{

// The most hits that one search returns.
constexpr double ResultWindow = 10000;

// The planner also estimates limits that are not constant; a cached plan may meet another value.
bool isConstantOrAbsent(const Node *bound) { return !bound || IsA(bound, Const); }

bool isScore(const ScannedRelation &scanned, const Node *expression)
{
    if (!IsA(expression, Var))
        return false;
    const auto *var = reinterpret_cast<const Var *>(expression);
    return var->varlevelsup == 0 && static_cast<Index>(var->varno) == scanned.relation->relid &&
           var->varattno > 0 && scanned.columns[var->varattno - 1].role == Role::Score;
}

// Whether the search returns its hits in the order that the query wants: any, or by descending score alone. A
// second key decides between equal scores, which the search does in its own way.
bool isOrderOfSearch(const ScannedRelation &scanned)
{
    const Query *query = scanned.root->parse;
    if (query->sortClause == NIL)
        return true;
    if (list_length(query->sortClause) != 1)
        return false;
    auto *key = static_cast<SortGroupClause *>(linitial(query->sortClause));
    Node *expression = get_sortgroupclause_expr(key, query->targetList);
    const Oid descending = lookup_type_cache(exprType(expression), TYPECACHE_GT_OPR)->gt_opr;
    return key->sortop == descending && isScore(scanned, expression);
}

} // namespace

Limit findLimit(const ScannedRelation &scanned)
{
    PlannerInfo *root = scanned.root;
    const Query *query = root->parse;
    const bool isFixed = isConstantOrAbsent(query->limitCount) && isConstantOrAbsent(query->limitOffset) &&
                         !server::limitKeepsTies(query);
    if (root->limit_tuples < 0 || root->limit_tuples > ResultWindow || !isFixed ||
        bms_membership(root->all_baserels) != BMS_SINGLETON || !isOrderOfSearch(scanned))
        return {-1, false};
    return {static_cast<int64>(root->limit_tuples), query->sortClause != NIL};
}

} // namespace qm::extension
