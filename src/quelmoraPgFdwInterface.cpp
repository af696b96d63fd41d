// The module's face towards the server: entry points, routine table, planner and executor callbacks. Every
// callback opens the error boundary's guard; the work is done elsewhere.
#include "options.h"
#include "server/memory.h"

#include <cstring>
#include <curl/curl.h>

using qm::pgFdw::ConnectorTypes;
using qm::pgFdwElaticSearch::ElasticSearchConnector;
using qm::server::callServer;
using qm::server::FdwError;
using qm::server::guardEntry;

namespace
{

// The wrapper does no costing: one estimate and one path for every table and query.
constexpr double EstimatedRows = 250000.0;
constexpr Cost StartupCost = 10000000.0;
constexpr Cost TotalCost = 20000000.0;

// ---- planning ------------------------------------------------------------------------------------------

void quelmoraPgFdwGetForeignRelSize(PlannerInfo *, RelOptInfo *baserel, Oid)
{
    baserel->rows = EstimatedRows;
}

void quelmoraPgFdwGetForeignPaths(PlannerInfo *root, RelOptInfo *baserel, Oid)
{
    // Nothing of C++ is alive here: the server's errors may pass.
    if (!bms_is_empty(baserel->lateral_relids))
        ereport(ERROR,
                (errcode(ERRCODE_FEATURE_NOT_SUPPORTED),
                 errmsg("a scan of this foreign table cannot compute values of another table's columns"),
                 errhint("Move the LATERAL references out of the subquery, into the select list or a "
                         "join condition.")));
    add_path(baserel, reinterpret_cast<Path *>(qm::server::createForeignScanPath(
                          root, baserel, baserel->rows, StartupCost, TotalCost, nullptr)));
}

// [server side] The plan's private data: a bytea of the connector type and the description.
Const *packPrivateData(int32 connectorType, const char *description, Size length)
{
    varlena *packed = nullptr;
    qm::pgFdw::allocateBytea(sizeof connectorType + length, packed);
    std::memcpy(VARDATA(packed), &connectorType, sizeof connectorType);
    std::memcpy(VARDATA(packed) + sizeof connectorType, description, length);
    return makeConst(BYTEAOID, -1, InvalidOid, static_cast<int>(VARSIZE(packed)), PointerGetDatum(packed),
                     false, false);
}

// [server side] A target of the plain columns in the relation's own. That is what version 10 has there; from
// 11 on the planner puts the query's finished expressions into it.
PathTarget *columnsOf(const PathTarget *target)
{
    PathTarget *columns = create_empty_pathtarget();
    columns->exprs =
        pull_var_clause(reinterpret_cast<Node *>(target->exprs),
                        PVC_RECURSE_AGGREGATES | PVC_RECURSE_WINDOWFUNCS | PVC_RECURSE_PLACEHOLDERS);
    return columns;
}

ForeignScan *quelmoraPgFdwGetForeignPlan(PlannerInfo *root, RelOptInfo *baserel, Oid foreignTableId,
                                         ForeignPath *, List *targetList, List *scanClauses, Plan *)
{
    return guardEntry([&] {
        List *clauses = callServer([&] { return extract_actual_clauses(scanClauses, false); });
        const int32 type =
            callServer([&] { return qm::pgFdwElaticSearch::findConnectorType(foreignTableId); });
        if (type == 0)
            throw FdwError(ERRCODE_FDW_INVALID_OPTION_NAME, "unsupported connector type");

        std::vector<char> description;
        List *fdwExprs = NIL;
        PathTarget *columns = callServer([&] { return columnsOf(baserel->reltarget); });
        qm::pgFdwElaticSearch::CreateConnectorStep1(&clauses, columns, foreignTableId, description, fdwExprs,
                                                    root);
        Const *packed =
            callServer([&] { return packPrivateData(type, description.data(), description.size()); });
        if (!packed)
            throw FdwError(ERRCODE_FDW_INVALID_OPTION_NAME, "need valid connectortype option");
        return callServer([&] {
            return make_foreignscan(targetList, clauses, baserel->relid, fdwExprs, lappend(NIL, packed), NIL,
                                    NIL, nullptr);
        });
    });
}

void quelmoraPgFdwExplainForeignScan(ForeignScanState *, ExplainState *) {}

// ---- execution -----------------------------------------------------------------------------------------

[[noreturn]] void throwInvalidHandle(const char *message, const char *function = __builtin_FUNCTION())
{
    throw FdwError(ERRCODE_FDW_INVALID_HANDLE, message, function);
}

MemoryContext queryContextOf(ForeignScanState *node)
{
    return node->ss.ps.ps_ExprContext->ecxt_per_query_memory;
}

ElasticSearchConnector *&connectorOf(ForeignScanState *node)
{
    return *reinterpret_cast<ElasticSearchConnector **>(&node->fdw_state);
}

bool hasValidConnector(ForeignScanState *node)
{
    return connectorOf(node) && qm::pgFdw::isValidConnectorType(connectorOf(node)->connectorType);
}

void begin(ForeignScanState *node)
{
    List *privateData = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_private;
    if (privateData == NIL)
        throwInvalidHandle("fdw ctx is null");
    if (list_length(privateData) != 1)
        throwInvalidHandle("null connector pointer");
    auto *packed =
        reinterpret_cast<varlena *>(DatumGetPointer(static_cast<Const *>(linitial(privateData))->constvalue));
    const int length = static_cast<int>(VARSIZE(packed)) - VARHDRSZ;
    ConnectorTypes type{};
    if (length < static_cast<int>(sizeof type))
        throwInvalidHandle("begin foreign scan invalid connector type");
    std::memcpy(&type, VARDATA(packed), sizeof type);
    char *description = length > static_cast<int>(sizeof type) ? VARDATA(packed) + sizeof type : nullptr;
    if (!qm::pgFdw::isValidConnectorType(type))
        throwInvalidHandle("begin foreign scan invalid connector type");

    ElasticSearchConnector *connector = qm::pgFdwElaticSearch::CreateConnectorStep2(
        description, RelationGetRelid(node->ss.ss_currentRelation), type, node);
    if (!connector)
        throwInvalidHandle("null connector pointer");
    connectorOf(node) = connector;
    if (!hasValidConnector(node))
        throwInvalidHandle("begin foreign scan invalid connector type");
    qm::pgFdwElaticSearch::BeginScan(connector, node);
}

void end(ForeignScanState *node)
{
    if (!hasValidConnector(node))
        throwInvalidHandle("end foreign scan invalid connector type");
    qm::pgFdwElaticSearch::EndScan(connectorOf(node), node);
    connectorOf(node) = nullptr;
}

void quelmoraPgFdwBeginForeignScan(ForeignScanState *node, int)
{
    guardEntry([&] {
        qm::server::MemoryContextScope scope(queryContextOf(node));
        begin(node);
    });
}

TupleTableSlot *quelmoraPgFdwIterateForeignScan(ForeignScanState *node)
{
    TupleTableSlot *slot = node->ss.ss_ScanTupleSlot;
    ExecClearTuple(slot);
    guardEntry([&] {
        qm::server::MemoryContextScope scope(queryContextOf(node));
        if (!hasValidConnector(node))
            throwInvalidHandle("iterate foreign scan invalid connector type");
        qm::pgFdwElaticSearch::IterateScan(connectorOf(node), node, slot);
    });
    return slot;
}

void quelmoraPgFdwReScanForeignScan(ForeignScanState *node)
{
    guardEntry([&] {
        qm::server::MemoryContextScope scope(queryContextOf(node));
        end(node);
        begin(node);
    });
}

void quelmoraPgFdwEndForeignScan(ForeignScanState *node)
{
    guardEntry([&] {
        qm::server::MemoryContextScope scope(queryContextOf(node));
        end(node);
    });
}

} // namespace

// ---- entry points --------------------------------------------------------------------------------------

#pragma GCC visibility push(default)
extern "C" {

PG_MODULE_MAGIC;

PG_FUNCTION_INFO_V1(veltranepgfdwinterfacehandler);
PG_FUNCTION_INFO_V1(veltranepgfdwinterfacevalidator);

void _PG_init(void);
void _PG_fini(void);

// libcurl wants to be initialised before any handle is made.
void _PG_init(void) { curl_global_init(CURL_GLOBAL_ALL); }

void _PG_fini(void) {}

// Returns a new routine table in the current memory context.
Datum veltranepgfdwinterfacehandler(PG_FUNCTION_ARGS)
{
    (void)fcinfo;
    FdwRoutine *routine = makeNode(FdwRoutine);
    routine->GetForeignRelSize = quelmoraPgFdwGetForeignRelSize;
    routine->GetForeignPaths = quelmoraPgFdwGetForeignPaths;
    routine->GetForeignPlan = quelmoraPgFdwGetForeignPlan;
    routine->BeginForeignScan = quelmoraPgFdwBeginForeignScan;
    routine->IterateForeignScan = quelmoraPgFdwIterateForeignScan;
    routine->ReScanForeignScan = quelmoraPgFdwReScanForeignScan;
    routine->EndForeignScan = quelmoraPgFdwEndForeignScan;
    routine->ExplainForeignScan = quelmoraPgFdwExplainForeignScan;
    PG_RETURN_POINTER(routine);
}

// Accepts every option; they are checked when a query uses them.
Datum veltranepgfdwinterfacevalidator(PG_FUNCTION_ARGS)
{
    (void)fcinfo;
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
