// The executor callbacks of veltranesearch: one scan, from the values of its conditions to its rows.
#include "server/errorBoundary.h"

#include "extension/conditionValues.h"
#include "extension/hitRow.h"
#include "extension/options.h"
#include "extension/parameters.h"
#include "extension/requestOfScan.h"
#include "extension/scan.h"
#include "server/memory.h"

#include <memory>
#include <unordered_set>

namespace qm::extension
{

using search::HitStream;
using server::callServer;
using server::guardEntry;

namespace
{

// The state of a scan. Lives in a memory context of its own, and goes with it.
class Scan
{
public:
    Scan(ForeignScanState *node, MemoryContext context);
    ~Scan() { noteDeflating(); }
    Scan(const Scan &) = delete;
    Scan &operator=(const Scan &) = delete;

    // Puts the next row into the cleared slot; leaves it empty at the end.
    void next(TupleTableSlot *slot);
    // Starts over, with other values of the conditions.
    void restart();
    void close() noexcept;

    search::Statistics statistics() const;

    const MemoryContext context;

private:
    void begin();
    void takeCount(TupleTableSlot *slot);
    bool goToNextHit();
    void noteDeflating() noexcept;

    ForeignScanState *const node;
    const PlanData plan;
    List *const expressions;
    HitRow row;

    bool hasBegun = false;
    std::shared_ptr<search::ClusterSession> session;
    std::unique_ptr<HitStream> hits;                    // null when there is nothing to ask for
    std::optional<std::unordered_set<std::string>> ids; // that the conditions name
    std::string id;
    search::Statistics before; // of the scans before a restart
    double notedDeflatedMs = 0;
};

ForeignScan *planOf(ForeignScanState *node) { return reinterpret_cast<ForeignScan *>(node->ss.ps.plan); }

// Whether the scan returns the number of hits in place of them.
bool isCount(ForeignScanState *node) { return planOf(node)->scan.scanrelid == 0; }

Scan::Scan(ForeignScanState *node, MemoryContext context)
    : context(context), node(node),
      plan(callServer([&] { return unpackPlanData(planOf(node)->fdw_private); })),
      expressions(callServer([&] { return ExecInitExprList(planOf(node)->fdw_exprs, &node->ss.ps); })),
      row(columnsOfScan(node, plan), context)
{
}

// The values of the conditions are known now: decides what to ask for.
void Scan::begin()
{
    hasBegun = true;
    const ConditionValues values =
        evaluateConditions(plan.conditions, expressions, node->ss.ps.ps_ExprContext, row.columns());
    if (values.findsNothing)
        return;
    const TableOptions options = readOptions(server::entryOfScan(node)->relid, server::userOfScan(node));
    const Parameters parameters = readParameters(values.params.value_or(std::vector<std::string>()));
    row.setCompressionLevel(parameters.compressionLevel.value_or(options.compressionLevel));
    row.setNullsBadValues(options.nullsBadValues);
    row.setParam(values.params ? &values.params->front() : nullptr);
    if (values.ids)
        ids.emplace(values.ids->begin(), values.ids->end());
    session = search::ClusterSession::of(options.serverId, options.userId, options.cluster);
    hits = std::make_unique<HitStream>(session, requestOfScan(options, row.columns(), parameters, values),
                                       pagingOfScan(options, plan, parameters));
}

void Scan::restart()
{
    close();
    before = statistics();
    hits.reset();
    ids.reset();
    hasBegun = false;
}

void Scan::close() noexcept
{
    if (hits)
        hits->close();
    noteDeflating();
}

// Compressing is what this scan does; the session's total knows it from here.
void Scan::noteDeflating() noexcept
{
    if (!session)
        return;
    session->spent.deflatedMs += row.deflatedMs() - notedDeflatedMs;
    notedDeflatedMs = row.deflatedMs();
}

search::Statistics Scan::statistics() const
{
    search::Statistics all = before;
    if (hits)
        all.add(hits->statistics());
    all.deflatedMs = row.deflatedMs();
    return all;
}

void Scan::next(TupleTableSlot *slot)
{
    const bool isFirst = !hasBegun;
    if (isFirst)
        begin();
    if (isCount(node)) {
        if (isFirst)
            takeCount(slot);
        return;
    }
    if (!goToNextHit())
        return;
    row.make(*hits, slot->tts_tupleDescriptor->natts, slot->tts_values, slot->tts_isnull);
    callServer([&] { ExecStoreVirtualTuple(slot); });
}

void Scan::takeCount(TupleTableSlot *slot)
{
    const std::int64_t count = hits ? hits->count() : 0;
    callServer([&] {
        slot->tts_values[0] = Int64GetDatum(count);
        slot->tts_isnull[0] = false;
        ExecStoreVirtualTuple(slot);
    });
}

bool Scan::goToNextHit()
{
    while (hits && hits->next()) {
        // The search finds no others; but it is the condition that decides.
        if (!ids || ids->count(std::string(idOf(*hits, id))) != 0)
            return true;
    }
    return false;
}

Scan *&scanOf(ForeignScanState *node) { return *reinterpret_cast<Scan **>(&node->fdw_state); }

MemoryContext queryContextOf(ForeignScanState *node)
{
    return node->ss.ps.ps_ExprContext->ecxt_per_query_memory;
}

} // namespace

void beginForeignScan(ForeignScanState *node, int flags)
{
    if ((flags & EXEC_FLAG_EXPLAIN_ONLY) != 0)
        return;
    guardEntry([&] {
        const MemoryContext context = callServer([&] {
            return AllocSetContextCreate(queryContextOf(node), "Elasticsearch search",
                                         ALLOCSET_DEFAULT_SIZES);
        });
        server::MemoryContextScope scope(context);
        scanOf(node) = server::makeIn<Scan>(context, node, context);
    });
}

TupleTableSlot *iterateForeignScan(ForeignScanState *node)
{
    TupleTableSlot *slot = node->ss.ss_ScanTupleSlot;
    ExecClearTuple(slot);
    guardEntry([&] { scanOf(node)->next(slot); });
    return slot;
}

// A row of a table that changed meanwhile is looked at again with the same documents. A count has no row of a
// table; many releases ask here for what it returns where it is in a sub-select of such a query.
bool recheckForeignScan(ForeignScanState *node, TupleTableSlot *slot)
{
    if (!isCount(node))
        return true;
    const MemoryContext caller = MemoryContextSwitchTo(node->ss.ps.ps_ExprContext->ecxt_per_tuple_memory);
    iterateForeignScan(node);
    MemoryContextSwitchTo(caller);
    return !TupIsNull(slot);
}

void reScanForeignScan(ForeignScanState *node)
{
    guardEntry([&] { scanOf(node)->restart(); });
}

void endForeignScan(ForeignScanState *node)
{
    if (!scanOf(node))
        return;
    guardEntry([&] {
        scanOf(node)->close();
        MemoryContextDelete(scanOf(node)->context);
        scanOf(node) = nullptr;
    });
}

std::vector<Column> columnsOfScan(ForeignScanState *node, const PlanData &plan)
{
    if (isCount(node))
        return {};
    return readColumns(RelationGetDescr(node->ss.ss_currentRelation),
                       callServer([&] { return attributeSetOf(plan); }));
}

search::Statistics statisticsOf(ForeignScanState *node)
{
    return scanOf(node) ? scanOf(node)->statistics() : search::Statistics();
}

} // namespace qm::extension
