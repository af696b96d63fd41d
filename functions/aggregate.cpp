// The SQL function veltranesearch_aggregate: any aggregations, as the cluster returns them.
#include "server/errorBoundary.h"

#include "functions/aggregation.h"
#include "functions/arguments.h"
#include "search/failure.h"
#include "search/values.h"

#include <algorithm>

namespace qm::functions
{
namespace
{

using server::callServer;

// The aggregations of a response, none of which may be missing.
std::string_view checkedAggregations(AggregationSearch &search, const std::string &query,
                                     const std::string &aggregations)
{
    const std::vector<std::string> wanted = namesOf(aggregations);
    if (wanted.empty())
        throw server::FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                               "argument \"aggregations\" names no aggregation");
    const std::string_view found = search.run(query, aggregations);
    const std::vector<std::string> names = namesOf(found);
    for (const std::string &each : wanted)
        if (std::find(names.begin(), names.end(), each) == names.end())
            search.refuse("no aggregation \"" + search::quoted(each) + "\"");
    return found;
}

Datum aggregate(FunctionCallInfo fcinfo)
{
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    const std::string aggregations = jsonArgument(fcinfo, 1, "aggregations", JsonKind::Object);
    const std::string query = jsonArgument(fcinfo, 2, "query", JsonKind::Object);
    AggregationSearch search(table);
    const std::string_view found = checkedAggregations(search, query, aggregations);
    return callServer([&] { return search::jsonOf(found); });
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_aggregate);

// veltranesearch_aggregate(relation regclass, aggregations jsonb, query jsonb) returns jsonb.
Datum veltranesearch_aggregate(PG_FUNCTION_ARGS)
{
    return qm::server::guardEntry([&] { return qm::functions::aggregate(fcinfo); });
}

} // extern "C"
#pragma GCC visibility pop
