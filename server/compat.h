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
#if PG_VERSION_NUM >= 180000
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

// Reports `text` as an ERROR at the given place; [server side], does not return. From version 13 on the
// place is handed over when the report is finished, before that when it starts.
[[noreturn]] inline void raiseError(int sqlState, const char *text, const char *file, int line,
                                    const char *function)
{
#if PG_VERSION_NUM >= 130000
    if (errstart(ERROR, TEXTDOMAIN)) {
#else
    if (errstart(ERROR, file, line, function, TEXTDOMAIN)) {
#endif
        errcode(sqlState);
        if (text)
            errmsg_internal("%s", text);
#if PG_VERSION_NUM >= 130000
        errfinish(file, line, function);
#else
        errfinish(0);
#endif
    }
    pg_unreachable();
}

// A path over a whole foreign table: no sort order, no parameters. Version 17 added a list of clauses,
// version 18 a count of disabled nodes.
inline ForeignPath *createForeignScanPath(PlannerInfo *root, RelOptInfo *relation, double rows,
                                          Cost startupCost, Cost totalCost)
{
#if PG_VERSION_NUM >= 180000
    return create_foreignscan_path(root, relation, nullptr, rows, 0, startupCost, totalCost, NIL, nullptr,
                                   nullptr, NIL, NIL);
#elif PG_VERSION_NUM >= 170000
    return create_foreignscan_path(root, relation, nullptr, rows, startupCost, totalCost, NIL, nullptr,
                                   nullptr, NIL, NIL);
#else
    return create_foreignscan_path(root, relation, nullptr, rows, startupCost, totalCost, NIL, nullptr,
                                   nullptr, NIL);
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

// The user whose rights the scan has: not the caller's where it is within a view. From version 16 on the plan
// knows it.
inline Oid userOfScan(ForeignScanState *node)
{
#if PG_VERSION_NUM >= 160000
    const Oid user = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->checkAsUser;
#else
    const Index relation = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->scan.scanrelid;
    const Oid user = rt_fetch(relation, node->ss.ps.state->es_range_table)->checkAsUser;
#endif
    return OidIsValid(user) ? user : GetUserId();
}

} // namespace qm::server
