// The SQL function veltranesearch_explain: why a document has its score.
#include "server/errorBoundary.h"

#include "extension/hitRow.h"
#include "functions/arguments.h"
#include "functions/hitsBody.h"
#include "functions/resultRows.h"
#include "functions/searchedTable.h"
#include "search/values.h"

namespace qm::functions
{
namespace
{

using search::HitStream;
using zq::elasticsearch::HitMember;

enum Column { DocIndex, Score, Explanation, ColumnCount };

// An id may be one in each of several indices.
std::string bodyFor(const std::string &id, const std::string &query)
{
    return R"({"explain":true,"_source":false,"query":{"bool":{"must":[)" + query + R"(],"filter":[)" +
           search::idFilter({id}) + "]}}}";
}

void returnExplanations(FunctionCallInfo fcinfo)
{
    ResultRows rows(fcinfo, ColumnCount);
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    const std::string id = textArgument(fcinfo, 1, "docname");
    const std::string query = jsonArgument(fcinfo, 2, "query", JsonKind::Object);
    const HitsBody body(bodyFor(id, query));
    HitStream hits(table.session, body.request(table.options), body.paging(table.options));
    std::string index;
    while (hits.next()) {
        const std::string_view name = extension::indexOf(hits, index);
        const std::string_view explanation = hits.member(HitMember::Explanation);
        if (explanation.empty())
            throw server::FdwError(ERRCODE_FDW_ERROR, "a hit comes without its explanation");
        rows.add([&](ResultRows::Row &row) {
            row.setText(DocIndex, name);
            if (const std::string_view score = hits.member(HitMember::Score); !score.empty())
                row.set(Score, search::scoreOf(CStringGetDatum(search::cStringOf(score))));
            row.setJson(Explanation, explanation);
        });
    }
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_explain);

// veltranesearch_explain(relation regclass, docname text, query jsonb) returns a row for each document of the
// id that the query finds.
Datum veltranesearch_explain(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { qm::functions::returnExplanations(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
