// When may the search stop early? The planner's figure is how many rows the whole query returns. It limits
// the search only where nothing stands in between: no join, no other order, no condition that is checked
// later.
#include "limit.h"
#include "columns.h"
#include "options.h"
#include "server/memory.h"

#include <cstring>

namespace qm::pgFdwElaticSearch
{

using server::callServer;

namespace
{

// The planner also estimates limits that are not constant; a cached plan may meet another value.
bool isConstantOrAbsent(const Node *bound) { return !bound || IsA(bound, Const); }

bool hasFixedLimit(const Query *query)
{
    return isConstantOrAbsent(query->limitCount) && isConstantOrAbsent(query->limitOffset) &&
           !server::limitKeepsTies(query);
}

// Whether the expression is the table's column that holds the score.
bool isScore(const Node *expression, PlannerInfo *root, Oid foreignTableId)
{
    if (!IsA(expression, Var))
        return false;
    const auto *var = reinterpret_cast<const Var *>(expression);
    if (var->varlevelsup != 0 || var->varattno != Score + 1)
        return false;
    const RangeTblEntry *entry = rt_fetch(var->varno, root->parse->rtable);
    if (entry->rtekind != RTE_RELATION || entry->relid != foreignTableId)
        return false;
    bool isNamedScore = false;
    server::withTupleDesc(foreignTableId, [&](tupleDesc *descriptor) {
        isNamedScore = std::strcmp(NameStr(TupleDescAttr(descriptor, Score)->attname), "score") == 0;
    });
    return isNamedScore;
}

// Whether the rows have scores. In scrolls and look-ups by id they are all 0, so a sort by them reads all
// rows anyway; a limit would only make the requests smaller and more.
bool hasScores(Oid foreignTableId, List *pushed)
{
    const int32 type = callServer([&] { return findConnectorType(foreignTableId); });
    if (type != static_cast<int32>(qm::pgFdw::ConnectorTypes::ElasticSearchStd))
        return false;
    bool used[ColumnCount] = {};
    server::withTupleDesc(foreignTableId, [&](tupleDesc *descriptor) {
        flagReferencedColumns(reinterpret_cast<Node *>(pushed), descriptor, used);
    });
    return !used[DocName];
}

// Whether the search returns its hits in the order that the query wants: any, or by descending score alone.
// A second key decides between equal scores, which the search does in its own way.
bool isOrderOfSearch(PlannerInfo *root, Oid foreignTableId, List *pushed)
{
    const Query *query = root->parse;
    if (query->sortClause == NIL)
        return true;
    if (list_length(query->sortClause) != 1)
        return false;
    auto *key = static_cast<SortGroupClause *>(linitial(query->sortClause));
    const Oid descending = callServer([] { return lookup_type_cache(FLOAT4OID, TYPECACHE_GT_OPR)->gt_opr; });
    if (key->sortop != descending)
        return false;
    const Node *expression = callServer([&] { return get_sortgroupclause_expr(key, query->targetList); });
    return isScore(expression, root, foreignTableId) && hasScores(foreignTableId, pushed);
}

} // namespace

int64 planRowLimit(PlannerInfo *root, Oid foreignTableId, List *pushed)
{
    // 2^63, the first double that no int64 holds, is no limit that a result reaches.
    constexpr double Unreachable = 9223372036854775808.0;
    if (root->limit_tuples < 0 || root->limit_tuples >= Unreachable)
        return -1;
    if (bms_membership(root->all_baserels) != BMS_SINGLETON || !hasFixedLimit(root->parse) ||
        !isOrderOfSearch(root, foreignTableId, pushed))
        return -1;
    return static_cast<int64>(root->limit_tuples);
}

} // namespace qm::pgFdwElaticSearch
