// The wrapper veltranesearch as the server sees it: its handler and its validator.
#include "server/errorBoundary.h"

#include "extension/analyze.h"
#include "extension/countPath.h"
#include "extension/explain.h"
#include "extension/importSchema.h"
#include "extension/options.h"
#include "extension/planning.h"
#include "extension/scan.h"

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_handler);
PG_FUNCTION_INFO_V1(veltranesearch_validator);

// veltranesearch_handler() returns fdw_handler: a new routine table in the current memory context.
Datum veltranesearch_handler(PG_FUNCTION_ARGS)
{
    (void)fcinfo;
    FdwRoutine *routine = makeNode(FdwRoutine);
    routine->GetForeignRelSize = qm::extension::getForeignRelSize;
    routine->GetForeignPaths = qm::extension::getForeignPaths;
    routine->GetForeignPlan = qm::extension::getForeignPlan;
    qm::server::setUpperPaths<qm::extension::getForeignUpperPaths>(routine);
    routine->BeginForeignScan = qm::extension::beginForeignScan;
    routine->IterateForeignScan = qm::extension::iterateForeignScan;
    routine->ReScanForeignScan = qm::extension::reScanForeignScan;
    routine->RecheckForeignScan = qm::extension::recheckForeignScan;
    routine->EndForeignScan = qm::extension::endForeignScan;
    routine->ExplainForeignScan = qm::extension::explainForeignScan;
    routine->AnalyzeForeignTable = qm::extension::analyzeForeignTable;
    routine->ImportForeignSchema = qm::extension::importForeignSchema;
    PG_RETURN_POINTER(routine);
}

// veltranesearch_validator(text[], oid) returns void. Raises an error for an option that there is not, for a
// value that it does not take, and where a required one is missing.
Datum veltranesearch_validator(PG_FUNCTION_ARGS)
{
    List *options = untransformRelOptions(PG_GETARG_DATUM(0));
    const Oid catalog = PG_GETARG_OID(1);
    qm::server::guardEntry([&] { qm::extension::validateOptions(options, catalog); });
    PG_RETURN_VOID();
}

} // extern "C"
#pragma GCC visibility pop
