// Counts that the search cluster makes: a search that asks for no hits tells how many there are. All of this
// is on the server's side of the error boundary.
#include "extension/countPath.h"
#include "extension/planData.h"
#include "extension/planning.h"

namespace qm::extension
{
namespace
{

constexpr Oid CountRowsFunction = 2803; // count(*)

bool countsAllRows(const Node *expression)
{
    if (!IsA(expression, Aggref))
        return false;
    const auto *aggregate = reinterpret_cast<const Aggref *>(expression);
    return aggregate->aggfnoid == CountRowsFunction && !aggregate->aggfilter;
}

// The columns of the scan when the expressions have nothing of the rows but their number: that alone. NIL
// when they have more, or nothing at all.
List *countColumns(const PathTarget *target)
{
    List *values = pull_var_clause(reinterpret_cast<Node *>(target->exprs), PVC_INCLUDE_AGGREGATES);
    ListCell *cell;
    foreach (cell, values)
        if (!countsAllRows(static_cast<Node *>(lfirst(cell))))
            return NIL;
    return add_to_flat_tlist(NIL, values);
}

// Whether there is one group of all rows, which is always returned.
bool isOneGroup(const Query *query)
{
    return query->groupClause == NIL && query->groupingSets == NIL && !query->havingQual;
}

// The table of a relation that is scanned; not of one that is joined, has children or was proved to be empty,
// whose size nobody has asked this wrapper for.
bool findTable(PlannerInfo *root, const RelOptInfo *relation, Oid &tableId)
{
    if (!relation->fdw_private)
        return false;
    tableId = planner_rt_fetch(relation->relid, root)->relid;
    return true;
}

void addCountPath(PlannerInfo *root, RelOptInfo *input, RelOptInfo *output)
{
    Oid tableId;
    PathTarget *target = root->upper_targets[UPPERREL_GROUP_AGG];
    // Conditions without a column are checked above the scan of a table, but nowhere above this one.
    if (!isOneGroup(root->parse) || root->hasPseudoConstantQuals || !findTable(root, input, tableId))
        return;
    List *columns = countColumns(target);
    PlanData data = {}; // of which no hit is wanted
    List *expressions = NIL;
    if (columns == NIL ||
        !findExactConditions(scannedRelation(root, input, tableId), data.conditions, expressions))
        return;
    // A request is what a scan costs before its first row.
    const Cost startup = input->cheapest_total_path->startup_cost + target->cost.startup;
    add_path(output, reinterpret_cast<Path *>(server::createForeignUpperPath(
                         root, output, target, startup, startup + cpu_tuple_cost + target->cost.per_tuple,
                         list_make3(packPlanData(data), expressions, columns))));
}

} // namespace

void getForeignUpperPaths(PlannerInfo *root, UpperRelationKind stage, RelOptInfo *input, RelOptInfo *output)
{
    if (stage == UPPERREL_GROUP_AGG)
        addCountPath(root, input, output);
}

ForeignScan *makeCountPlan(ForeignPath *path, List *targetList)
{
    auto *data = static_cast<List *>(linitial(path->fdw_private));
    auto *expressions = static_cast<List *>(lsecond(path->fdw_private));
    auto *columns = static_cast<List *>(lthird(path->fdw_private));
    return make_foreignscan(targetList, NIL, 0, expressions, data, columns, NIL, nullptr);
}

} // namespace qm::extension
