// The rows that an SQL function returns.
#include "functions/resultRows.h"
#include "search/values.h"

namespace qm::functions
{
namespace
{

// [server side] The rows go where the caller looks for them.
void openStore(FunctionCallInfo call, TupleDesc &descriptor, Tuplestorestate *&store)
{
    auto *result = reinterpret_cast<ReturnSetInfo *>(call->resultinfo);
    if (!result || !IsA(result, ReturnSetInfo) || (result->allowedModes & SFRM_Materialize) == 0)
        ereport(ERROR, (errcode(ERRCODE_FEATURE_NOT_SUPPORTED),
                        errmsg("set-valued function called in context that cannot accept a set")));
    const MemoryContext caller = MemoryContextSwitchTo(result->econtext->ecxt_per_query_memory);
    if (get_call_result_type(call, nullptr, &descriptor) != TYPEFUNC_COMPOSITE)
        ereport(ERROR, (errcode(ERRCODE_FEATURE_NOT_SUPPORTED), errmsg("a record is expected")));
    store = tuplestore_begin_heap((result->allowedModes & SFRM_Materialize_Random) != 0, false, work_mem);
    result->returnMode = SFRM_Materialize;
    result->setResult = store;
    result->setDesc = descriptor;
    MemoryContextSwitchTo(caller);
}

} // namespace

void ResultRows::Row::set(int column, Datum value)
{
    values[static_cast<std::size_t>(column)] = value;
    nulls[static_cast<std::size_t>(column)] = false;
}

void ResultRows::Row::setText(int column, std::string_view utf8) { set(column, search::textOf(utf8)); }

void ResultRows::Row::setJson(int column, std::string_view utf8) { set(column, search::jsonOf(utf8)); }

ResultRows::ResultRows(FunctionCallInfo call, int columns)
{
    server::callServer([&] {
        openStore(call, descriptor, store);
        rowContext = AllocSetContextCreate(CurrentMemoryContext, "Elasticsearch row", ALLOCSET_DEFAULT_SIZES);
    });
    if (descriptor->natts != columns)
        throw server::FdwError(ERRCODE_DATATYPE_MISMATCH,
                               "a record of " + std::to_string(columns) + " columns is expected");
}

MemoryContext ResultRows::begin(Row &row)
{
    CHECK_FOR_INTERRUPTS();
    MemoryContextReset(rowContext);
    row.nulls.fill(true);
    row.values.fill(0);
    return MemoryContextSwitchTo(rowContext);
}

void ResultRows::end(Row &row, MemoryContext caller)
{
    tuplestore_putvalues(store, descriptor, row.values.data(), row.nulls.data());
    MemoryContextSwitchTo(caller);
}

} // namespace qm::functions
