// The SQL functions behind the view veltranesearch_exchanges: what this session has exchanged with the
// clusters.
#include "server/errorBoundary.h"

#include "search/statistics.h"

using qm::search::Statistics;

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_exchanges);
PG_FUNCTION_INFO_V1(veltranesearch_exchanges_reset);

// veltranesearch_exchanges(oid) returns record: of a foreign server, the members of Statistics in their
// order.
Datum veltranesearch_exchanges(PG_FUNCTION_ARGS)
{
    TupleDesc descriptor = nullptr;
    if (get_call_result_type(fcinfo, nullptr, &descriptor) != TYPEFUNC_COMPOSITE)
        ereport(ERROR, (errcode(ERRCODE_FEATURE_NOT_SUPPORTED), errmsg("a record is expected")));
    const Statistics spent = qm::search::statisticsOfServer(PG_GETARG_OID(0));
    Datum values[] = {Int64GetDatum(spent.requests),
                      Int64GetDatum(spent.pages),
                      Int64GetDatum(spent.hits),
                      Int64GetDatum(spent.bytes),
                      Int64GetDatum(spent.retries),
                      Int64GetDatum(spent.openedConnections),
                      Int64GetDatum(spent.reusedConnections),
                      Float8GetDatum(spent.waitedMs),
                      Float8GetDatum(spent.deflatedMs)};
    bool nulls[lengthof(values)] = {};
    if (descriptor->natts != lengthof(values))
        ereport(ERROR, (errcode(ERRCODE_DATATYPE_MISMATCH),
                        errmsg("a record of %zu columns is expected", lengthof(values))));
    PG_RETURN_DATUM(HeapTupleGetDatum(heap_form_tuple(BlessTupleDesc(descriptor), values, nulls)));
}

// veltranesearch_exchanges_reset() returns void.
Datum veltranesearch_exchanges_reset(PG_FUNCTION_ARGS)
{
    (void)fcinfo;
    qm::search::resetStatistics();
    PG_RETURN_VOID();
}

} // extern "C"
#pragma GCC visibility pop
