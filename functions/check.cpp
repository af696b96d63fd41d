// The SQL functions veltranesearch_check and veltranesearch_checkserver: what to run first when something
// does not work.
#include "server/errorBoundary.h"

#include "extension/options.h"
#include "functions/checkCluster.h"
#include "functions/checkColumns.h"
#include "functions/checkIndices.h"
#include "functions/checkMapping.h"
#include "functions/checkNodes.h"
#include "functions/checkOptions.h"
#include "functions/searchedTable.h"

namespace
{

using namespace qm::functions; // NOLINT(google-build-using-namespace)
using qm::server::callServer;
using qm::server::FdwError;

void checkTable(FunctionCallInfo fcinfo)
{
    Report report(fcinfo);
    const Oid relation = PG_GETARG_OID(0);
    if (!report.survives("foreign table", [&] { lockSearchedTable(relation); }))
        return;
    const ForeignTable *table = callServer([&] { return GetForeignTable(relation); });
    const std::optional<qm::search::Cluster> cluster = checkServerOptions(report, table->serverid);
    const std::string what = "options of the foreign table";
    const Soundness sound = reportFaults(report, what, table->options, ForeignTableRelationId);
    if (sound == Soundness::Sound)
        report.fine(what, "They can be used.");
    const Columns columns = checkColumns(report, relation);
    if (!cluster || sound == Soundness::Unusable)
        return;
    std::optional<CheckedNode> node = checkNodes(report, table->serverid, *cluster);
    if (!node)
        return;
    const qm::extension::TableOptions options = qm::extension::readTableOptions(relation);
    if (checkIndices(report, *node, options.indices))
        checkMapping(report, *node, options, columns);
    checkCluster(report, *node);
}

// Throws FdwError for a name of none of the wrapper's servers, and where the current user must not use it.
Oid serverOf(const char *name)
{
    const Oid server = callServer([&] { return get_foreign_server_oid(name, true); });
    if (!OidIsValid(server) || !isSearchWrapper(callServer([&] { return GetForeignServer(server)->fdwid; })))
        throw FdwError(ERRCODE_WRONG_OBJECT_TYPE, "there is no foreign server of the wrapper veltranesearch "
                                                  "of that name")
            .detailed(name)
            .hinted("The view veltranesearch_exchanges lists them.");
    const bool mayUse = callServer([&] {
        return DatumGetBool(DirectFunctionCall2(has_server_privilege_id, ObjectIdGetDatum(server),
                                                PointerGetDatum(cstring_to_text("USAGE"))));
    });
    if (!mayUse)
        throw FdwError(ERRCODE_INSUFFICIENT_PRIVILEGE,
                       std::string("permission denied for foreign server ") + name);
    return server;
}

void checkServer(FunctionCallInfo fcinfo)
{
    Report report(fcinfo);
    Oid server = InvalidOid;
    if (!report.survives("foreign server", [&] { server = serverOf(NameStr(*PG_GETARG_NAME(0))); }))
        return;
    const std::optional<qm::search::Cluster> cluster = checkServerOptions(report, server);
    if (!cluster)
        return;
    if (std::optional<CheckedNode> node = checkNodes(report, server, *cluster))
        checkCluster(report, *node);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_check);
PG_FUNCTION_INFO_V1(veltranesearch_checkserver);

// veltranesearch_check(relation regclass) returns a row for each thing that was looked at.
Datum veltranesearch_check(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { checkTable(fcinfo); });
    return 0;
}

// veltranesearch_checkserver(server name) returns the same of a server without a table.
Datum veltranesearch_checkserver(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { checkServer(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
