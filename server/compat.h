// Differences between the server versions 10 to 18, and nothing else: no other file asks for the version.
// The code is written for the version-10 interface; each entry is named after the version-10 form where
// there is one. Included by quelmoraPgServer.h only.
#pragma once

extern "C" {
#if PG_VERSION_NUM >= 120000
#include "access/relation.h"
#include "access/table.h"
#include "optimizer/optimizer.h"
#else
#include "access/heapam.h"
#include "optimizer/clauses.h"
#include "optimizer/var.h"
#endif
#if PG_VERSION_NUM >= 140000
#include "utils/wait_event.h"
#endif
#if PG_VERSION_NUM >= 180000
#include "commands/explain_format.h"
#include "commands/explain_state.h"
#endif
}

#include <type_traits>

// The descriptor's structure is named `tupleDesc` in some versions and TupleDescData in the others.
using tupleDesc = std::remove_pointer_t<TupleDesc>;

// Releases of version 10 may lack it.
#if PG_VERSION_NUM < 110000 && !defined(TupleDescAttr)
#define TupleDescAttr(descriptor, index) ((descriptor)->attrs[index])
#endif

#if PG_VERSION_NUM >= 120000
// Version 12 still has a macro of this name, which would turn the definition into one of table_open.
#undef heap_open
inline Relation heap_open(Oid relationId, LOCKMODE lockMode) { return table_open(relationId, lockMode); }
#endif

namespace qm::server
{

// The texts of an error; null for one that it does not have.
struct ErrorTexts {
    const char *message;
    const char *detail;
    const char *hint;
};

// Reports an ERROR at the given place; [server side], does not return. From version 13 on the place is handed
// over when the report is finished, before that when it starts.
[[noreturn]] inline void raiseError(int sqlState, const ErrorTexts &texts, const char *file, int line,
                                    const char *function)
{
#if PG_VERSION_NUM >= 130000
    if (errstart(ERROR, TEXTDOMAIN)) {
#else
    if (errstart(ERROR, file, line, function, TEXTDOMAIN)) {
#endif
        errcode(sqlState);
        if (texts.message)
            errmsg_internal("%s", texts.message);
        if (texts.detail)
            errdetail_internal("%s", texts.detail);
        if (texts.hint)
            errhint("%s", texts.hint);
#if PG_VERSION_NUM >= 130000
        errfinish(file, line, function);
#else
        errfinish(0);
#endif
    }
    pg_unreachable();
}

// More than any plan costs that does what the query wants, also one of disabled kinds of nodes.
constexpr Cost ProhibitiveCost = 1e15;

// A path over a whole foreign table, without a sort order, for rows of the `outer` relations (null: of none).
// Version 17 added a list of clauses, version 18 a count of disabled nodes, which it compares before costs.
inline ForeignPath *createForeignScanPath(PlannerInfo *root, RelOptInfo *relation, double rows,
                                          Cost startupCost, Cost totalCost, Relids outer)
{
#if PG_VERSION_NUM >= 180000
    constexpr int MoreThanAnyPlanHas = 1000000;
    const int disabledNodes = totalCost >= ProhibitiveCost ? MoreThanAnyPlanHas : 0;
    return create_foreignscan_path(root, relation, nullptr, rows, disabledNodes, startupCost, totalCost, NIL,
                                   outer, nullptr, NIL, NIL);
#elif PG_VERSION_NUM >= 170000
    return create_foreignscan_path(root, relation, nullptr, rows, startupCost, totalCost, NIL, outer, nullptr,
                                   NIL, NIL);
#else
    return create_foreignscan_path(root, relation, nullptr, rows, startupCost, totalCost, NIL, outer, nullptr,
                                   NIL);
#endif
}

// A path that makes the one row of an aggregate over a relation. Before version 12 there was one function for
// all paths.
inline ForeignPath *createForeignUpperPath(PlannerInfo *root, RelOptInfo *relation, PathTarget *target,
                                           Cost startupCost, Cost totalCost, List *privateData)
{
#if PG_VERSION_NUM >= 180000
    return create_foreign_upper_path(root, relation, target, 1, 0, startupCost, totalCost, NIL, nullptr, NIL,
                                     privateData);
#elif PG_VERSION_NUM >= 170000
    return create_foreign_upper_path(root, relation, target, 1, startupCost, totalCost, NIL, nullptr, NIL,
                                     privateData);
#elif PG_VERSION_NUM >= 120000
    return create_foreign_upper_path(root, relation, target, 1, startupCost, totalCost, NIL, nullptr,
                                     privateData);
#else
    return create_foreignscan_path(root, relation, target, 1, startupCost, totalCost, NIL, nullptr, nullptr,
                                   privateData);
#endif
}

// Makes the function a wrapper's GetForeignUpperPaths, which is told more from version 11 on.
template <void (*callback)(PlannerInfo *, UpperRelationKind, RelOptInfo *, RelOptInfo *)>
void setUpperPaths(FdwRoutine *routine)
{
#if PG_VERSION_NUM >= 110000
    routine->GetForeignUpperPaths = [](PlannerInfo *root, UpperRelationKind stage, RelOptInfo *input,
                                       RelOptInfo *output, void *) { callback(root, stage, input, output); };
#else
    routine->GetForeignUpperPaths = callback;
#endif
}

// The relations whose columns the expression uses.
inline Relids pullVarnos([[maybe_unused]] PlannerInfo *root, Node *expression)
{
#if PG_VERSION_NUM >= 140000
    return pull_varnos(root, expression);
#else
    return pull_varnos(expression);
#endif
}

// Whether equal strings of the collation are the same bytes. Before version 12 they always were.
inline bool isDeterministic([[maybe_unused]] Oid collation)
{
#if PG_VERSION_NUM >= 120000
    return !OidIsValid(collation) || get_collation_isdeterministic(collation);
#else
    return true;
#endif
}

#if PG_VERSION_NUM < 130000
inline bool is_orclause(const Node *clause) { return or_clause(const_cast<Node *>(clause)); }
inline bool is_andclause(const Node *clause) { return and_clause(const_cast<Node *>(clause)); }
#endif

// What the server needs to write down expressions of a plan node.
inline List *deparseContextOf(ExplainState *state, PlanState *node)
{
#if PG_VERSION_NUM >= 130000
    return set_deparse_context_plan(state->deparse_cxt, node->plan, NIL);
#else
    return set_deparse_context_planstate(state->deparse_cxt, reinterpret_cast<Node *>(node), NIL);
#endif
}

#if PG_VERSION_NUM < 110000
inline void ExplainPropertyInteger(const char *label, const char *, int64 value, ExplainState *state)
{
    ExplainPropertyLong(label, static_cast<long>(value), state);
}

inline void ExplainPropertyFloat(const char *label, const char *, double value, int digits,
                                 ExplainState *state)
{
    ExplainPropertyFloat(label, value, digits, state);
}
#endif

// How many elements an expression that is an array is likely to have.
inline double estimateArrayLength([[maybe_unused]] PlannerInfo *root, Node *array)
{
#if PG_VERSION_NUM >= 170000
    return estimate_array_length(root, array);
#else
    return estimate_array_length(array);
#endif
}

// Whether rows that equal the last one of the LIMIT are returned as well (WITH TIES, from version 13 on).
inline bool limitKeepsTies([[maybe_unused]] const Query *query)
{
#if PG_VERSION_NUM >= 130000
    return query->limitOption == LIMIT_OPTION_WITH_TIES;
#else
    return false;
#endif
}

// What the query says of the table that is scanned, also where the scan returns something else than its rows.
// From version 16 on outer joins have numbers as well.
inline RangeTblEntry *entryOfScan(ForeignScanState *node)
{
#if PG_VERSION_NUM >= 160000
    const Bitmapset *relations = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fs_base_relids;
#else
    const Bitmapset *relations = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fs_relids;
#endif
    return rt_fetch(bms_next_member(relations, -1), node->ss.ps.state->es_range_table);
}

// The user whose rights the scan has: not the caller's where it is within a view. From version 16 on the plan
// knows it.
inline Oid userOfScan(ForeignScanState *node)
{
#if PG_VERSION_NUM >= 160000
    const Oid user = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->checkAsUser;
#else
    const Oid user = entryOfScan(node)->checkAsUser;
#endif
    return OidIsValid(user) ? user : GetUserId();
}

} // namespace qm::server
