// The planner callbacks of veltranesearch: how many rows a scan has and what they cost, by which conditions
// it can be steered, and the plan of it.
#include "server/errorBoundary.h"

#include "extension/countPath.h"
#include "extension/limit.h"
#include "extension/options.h"
#include "extension/planData.h"
#include "extension/planning.h"
#include "server/memory.h"

#include <cmath>

namespace qm::extension
{

using server::callServer;
using server::guardEntry;

namespace
{

// What is known of a relation after its size was estimated: plain data in the planner's memory.
struct Estimates {
    double requestCost;
    double rowCost;
    double batchSize;
    double tuples;        // documents of the indices
    bool isJoinedByParam; // a join condition gives the parameters of the search
    PlannedColumn *columns;
};

// How many documents a query finds, of all there are, as long as nobody knows better.
constexpr double QuerySelectivity = 0.005;

Estimates &estimatesOf(RelOptInfo *relation) { return *static_cast<Estimates *>(relation->fdw_private); }

[[noreturn]] void refuseParam()
{
    ereport(ERROR, (errcode(ERRCODE_FEATURE_NOT_SUPPORTED),
                    errmsg("a condition on \"param\" cannot be given to the search"),
                    errhint("Compare \"param\" by =, IN or = ANY with something that has a value before the "
                            "search: no column of the same table, no volatile function, no other condition "
                            "in one OR, no table that is joined later.")));
    pg_unreachable();
}

} // namespace

ScannedRelation scannedRelation(PlannerInfo *root, RelOptInfo *relation, Oid tableId)
{
    return {root, relation, tableId, estimatesOf(relation).columns};
}

namespace
{

// ---- size ------------------------------------------------------------------------------------------------

// The number of values that a condition compares with.
double countValues(PlannerInfo *root, const Condition &condition)
{
    double count = 0;
    ListCell *value;
    ListCell *isArray;
    forboth(value, condition.values, isArray, condition.arrays) count +=
        lfirst_int(isArray) ? server::estimateArrayLength(root, static_cast<Node *>(lfirst(value))) : 1;
    return count;
}

// Estimates the rows that are left of so many by the clauses (RestrictInfos), those of join conditions
// included.
double estimateRows(const ScannedRelation &scanned, List *clauses, double tuples)
{
    List *others = NIL;
    double ids = -1;
    double rows = tuples;
    ListCell *cell;
    foreach (cell, clauses) {
        auto *restriction = static_cast<RestrictInfo *>(lfirst(cell));
        Condition condition;
        if (!readCondition(scanned, restriction->clause, condition) || condition.role == Role::Field)
            others = lappend(others, restriction);
        else if (condition.role == Role::DocName)
            ids = ids < 0 ? countValues(scanned.root, condition)
                          : Min(ids, countValues(scanned.root, condition));
        else
            rows *= QuerySelectivity;
    }
    if (ids >= 0)
        rows = Min(rows, ids);
    return clamp_row_est(rows * clauselist_selectivity(scanned.root, others, 0, JOIN_INNER, nullptr));
}

// One for each attribute, in the current memory context.
PlannedColumn *planColumns(Oid tableId)
{
    PlannedColumn *columns = nullptr;
    server::withTupleDesc(tableId, [&](tupleDesc *descriptor) {
        const auto count = static_cast<Size>(descriptor->natts);
        columns = callServer(
            [&] { return static_cast<PlannedColumn *>(palloc0(count * sizeof(PlannedColumn) + 1)); });
        for (int index = 0; index < descriptor->natts; ++index) {
            const Form_pg_attribute attribute = TupleDescAttr(descriptor, index);
            if (attribute->attisdropped)
                continue;
            const ColumnOptions options = readColumnOptions(tableId, attribute->attnum);
            columns[index] = {roleOf(NameStr(attribute->attname), options.field), options.mapped};
        }
    });
    return columns;
}

void estimateSize(PlannerInfo *root, RelOptInfo *relation, Oid tableId)
{
    Estimates &estimates = estimatesOf(relation);
    if (relation->tuples > 0)
        estimates.tuples = relation->tuples;
    relation->tuples = estimates.tuples;
    set_baserel_size_estimates(root, relation);
    relation->rows =
        estimateRows(scannedRelation(root, relation, tableId), relation->baserestrictinfo, estimates.tuples);
}

// ---- paths -----------------------------------------------------------------------------------------------

struct PathCost {
    Cost startup;
    Cost total;
};

PathCost costOf(RelOptInfo *relation, double rows)
{
    const Estimates &estimates = estimatesOf(relation);
    const double requests = 1 + std::floor(rows / estimates.batchSize);
    PathCost cost;
    cost.startup =
        estimates.requestCost + relation->baserestrictcost.startup + relation->reltarget->cost.startup;
    cost.total = cost.startup + (requests - 1) * estimates.requestCost +
                 rows * (estimates.rowCost + cpu_tuple_cost + relation->baserestrictcost.per_tuple +
                         relation->reltarget->cost.per_tuple);
    return cost;
}

// What generate_implied_equalities_for_column looks for: the columns that the search can be asked by.
struct MemberSearch {
    const ScannedRelation *scanned;
    Expr *current;
    List *alreadyUsed;
};

bool isSteeringColumn(PlannerInfo *, RelOptInfo *, EquivalenceClass *, EquivalenceMember *member,
                      void *argument)
{
    auto *search = static_cast<MemberSearch *>(argument);
    if (search->current)
        return equal(member->em_expr, search->current);
    if (list_member(search->alreadyUsed, member->em_expr) ||
        !isSteering(*search->scanned, reinterpret_cast<Node *>(member->em_expr)))
        return false;
    search->current = member->em_expr;
    return true;
}

// The join conditions that the search can carry out when the other side's values are known.
List *steeringJoinClauses(const ScannedRelation &scanned)
{
    RelOptInfo *relation = scanned.relation;
    List *clauses = NIL;
    ListCell *cell;
    foreach (cell, relation->joininfo) {
        auto *restriction = static_cast<RestrictInfo *>(lfirst(cell));
        Condition condition;
        const bool isUsable = join_clause_is_movable_to(restriction, relation) &&
                              readCondition(scanned, restriction->clause, condition) &&
                              isPromotable(scanned, restriction);
        if (isUsable)
            clauses = lappend(clauses, restriction);
        else if (requiresParam(scanned, reinterpret_cast<Node *>(restriction->clause)))
            refuseParam();
    }
    if (!relation->has_eclass_joins)
        return clauses;
    MemberSearch search = {&scanned, nullptr, NIL};
    for (;;) {
        search.current = nullptr;
        List *implied = generate_implied_equalities_for_column(scanned.root, relation, isSteeringColumn,
                                                               &search, relation->lateral_referencers);
        if (!search.current)
            return clauses;
        foreach (cell, implied) {
            auto *restriction = static_cast<RestrictInfo *>(lfirst(cell));
            Condition condition;
            if (join_clause_is_movable_to(restriction, relation) &&
                readCondition(scanned, restriction->clause, condition) && isPromotable(scanned, restriction))
                clauses = lappend(clauses, restriction);
        }
        search.alreadyUsed = lappend(search.alreadyUsed, search.current);
    }
}

bool givesParam(const ScannedRelation &scanned, List *restrictions)
{
    ListCell *cell;
    foreach (cell, restrictions) {
        Condition condition;
        if (readCondition(scanned, static_cast<RestrictInfo *>(lfirst(cell))->clause, condition) &&
            condition.role == Role::Param)
            return true;
    }
    return false;
}

void addPath(PlannerInfo *root, RelOptInfo *relation, double rows, PathCost cost, Relids outer)
{
    add_path(relation, reinterpret_cast<Path *>(server::createForeignScanPath(
                           root, relation, rows, cost.startup, cost.total, outer)));
}

void addPaths(PlannerInfo *root, RelOptInfo *relation, Oid tableId)
{
    const ScannedRelation scanned = scannedRelation(root, relation, tableId);
    Estimates &estimates = estimatesOf(relation);
    List *joinClauses = steeringJoinClauses(scanned);
    estimates.isJoinedByParam = givesParam(scanned, joinClauses);

    // Without its parameters the search would find other documents; such a path is there only so that the
    // planner finds one where no other will do, and is refused then.
    PathCost cost = costOf(relation, relation->rows);
    if (estimates.isJoinedByParam)
        cost = {server::ProhibitiveCost, server::ProhibitiveCost};
    addPath(root, relation, relation->rows, cost, relation->lateral_relids);

    List *done = NIL; // each set of outer relations once
    ListCell *cell;
    foreach (cell, joinClauses) {
        auto *restriction = static_cast<RestrictInfo *>(lfirst(cell));
        Relids outer = bms_union(restriction->clause_relids, relation->lateral_relids);
        outer = bms_del_member(outer, static_cast<int>(relation->relid));
        ParamPathInfo *parameters =
            bms_is_empty(outer) ? nullptr : get_baserel_parampathinfo(root, relation, outer);
        if (!parameters || list_member_ptr(done, parameters))
            continue;
        done = lappend(done, parameters);
        List *all = list_concat(list_copy(relation->baserestrictinfo), list_copy(parameters->ppi_clauses));
        const double rows = estimateRows(scanned, all, estimates.tuples);
        parameters->ppi_rows = rows;
        const bool isEnforced = !estimates.isJoinedByParam || givesParam(scanned, parameters->ppi_clauses);
        addPath(root, relation, rows,
                isEnforced ? costOf(relation, rows)
                           : PathCost{server::ProhibitiveCost, server::ProhibitiveCost},
                outer);
    }
}

// ---- plan ------------------------------------------------------------------------------------------------

// The conditions of a scan, told apart.
struct Sorted {
    List *conditions = NIL;  // as PlanData has them
    List *expressions = NIL; // their values
    List *local = NIL;       // clauses that the server checks on each row
    List *recheck = NIL;     // those that the search checks alone
    int paramConditions = 0;
    bool isExact = true; // no row that the search finds is left out by the server
};

void take(Sorted &sorted, const Condition &condition, Expr *clause)
{
    sorted.conditions = lappend(sorted.conditions, packCondition(condition));
    sorted.expressions = list_concat(sorted.expressions, list_copy(condition.values));
    if (condition.role == Role::Param)
        ++sorted.paramConditions;
    if (condition.role == Role::Field) { // a superset
        sorted.local = lappend(sorted.local, clause);
        sorted.isExact = false;
    } else {
        sorted.recheck = lappend(sorted.recheck, clause);
    }
}

Sorted sortClauses(const ScannedRelation &scanned, List *scanClauses)
{
    Sorted sorted;
    ListCell *cell;
    foreach (cell, scanClauses) {
        auto *restriction = static_cast<RestrictInfo *>(lfirst(cell));
        if (restriction->pseudoconstant)
            continue;
        Condition condition;
        if (readCondition(scanned, restriction->clause, condition) && isPromotable(scanned, restriction)) {
            take(sorted, condition, restriction->clause);
            continue;
        }
        if (requiresParam(scanned, reinterpret_cast<Node *>(restriction->clause)))
            refuseParam();
        sorted.local = lappend(sorted.local, restriction->clause);
        sorted.isExact = false;
    }
    if (sorted.paramConditions > 1)
        ereport(ERROR,
                (errcode(ERRCODE_FEATURE_NOT_SUPPORTED), errmsg("a search takes one condition on \"param\""),
                 errhint("Give all parameters in one: param IN ('query=...', 'highlight=...').")));
    if (sorted.paramConditions == 0 && estimatesOf(scanned.relation).isJoinedByParam)
        refuseParam();
    return sorted;
}

// Whether nobody looks at the value of the row's place. Where rows of a partitioned table are locked, the
// planner asks every partition for it, though those of foreign tables are told by the whole row.
bool isPlaceUnused(const ScannedRelation &scanned)
{
    return scanned.relation->reloptkind == RELOPT_OTHER_MEMBER_REL && scanned.root->rowMarks != NIL;
}

// The attributes that are used above the scan and by its clauses.
List *usedAttributes(const ScannedRelation &scanned, const Sorted &sorted)
{
    RelOptInfo *relation = scanned.relation;
    Bitmapset *used = nullptr;
    for (List *expressions : {relation->reltarget->exprs, sorted.local, sorted.recheck})
        pull_varattnos(reinterpret_cast<Node *>(expressions), relation->relid, &used);
    if (isPlaceUnused(scanned))
        used = bms_del_member(used, SelfItemPointerAttributeNumber - FirstLowInvalidHeapAttributeNumber);
    List *attributes = NIL;
    for (int member = -1; (member = bms_next_member(used, member)) >= 0;)
        attributes = lappend_int(attributes, member + FirstLowInvalidHeapAttributeNumber);
    return attributes;
}

ForeignScan *makePlan(const ScannedRelation &scanned, ForeignPath *path, List *targetList, List *scanClauses)
{
    RelOptInfo *relation = scanned.relation;
    const Sorted sorted = sortClauses(scanned, scanClauses);
    const Limit limit = findLimit(scanned);
    PlanData data = {};
    data.attributes = usedAttributes(scanned, sorted);
    data.conditions = sorted.conditions;
    data.limit = sorted.isExact ? limit.rows : -1;
    data.limitIsByScore = limit.byScore;
    data.rowsHint = Max(limit.rows, 0);
    data.isSmall = path->path.rows <= estimatesOf(relation).batchSize && sorted.paramConditions > 0;
    return make_foreignscan(targetList, sorted.local, relation->relid, sorted.expressions, packPlanData(data),
                            NIL, sorted.recheck, nullptr);
}

} // namespace

void getForeignRelSize(PlannerInfo *root, RelOptInfo *relation, Oid tableId)
{
    guardEntry([&] {
        const TableOptions options = readTableOptions(tableId);
        PlannedColumn *columns = planColumns(tableId);
        callServer([&] {
            auto *estimates = static_cast<Estimates *>(palloc0(sizeof(Estimates)));
            estimates->requestCost = options.requestCost;
            estimates->rowCost = options.rowCost;
            estimates->batchSize = options.batchSize;
            estimates->tuples = options.estimatedRows;
            estimates->columns = columns;
            relation->fdw_private = estimates;
            estimateSize(root, relation, tableId);
        });
    });
}

void getForeignPaths(PlannerInfo *root, RelOptInfo *relation, Oid tableId)
{
    // Nothing of C++ is alive here: the server's errors may pass.
    addPaths(root, relation, tableId);
}

ForeignScan *getForeignPlan(PlannerInfo *root, RelOptInfo *relation, Oid tableId, ForeignPath *path,
                            List *targetList, List *scanClauses, Plan *)
{
    if (relation->reloptkind == RELOPT_UPPER_REL)
        return makeCountPlan(path, targetList);
    return makePlan(scannedRelation(root, relation, tableId), path, targetList, scanClauses);
}

bool findExactConditions(const ScannedRelation &scanned, List *&conditions, List *&expressions)
{
    const Sorted sorted = sortClauses(scanned, scanned.relation->baserestrictinfo);
    conditions = sorted.conditions;
    expressions = sorted.expressions;
    return sorted.isExact;
}

} // namespace qm::extension
