// The SQL function veltranesearch_hits: the hits of any search.
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

enum Column { DocIndex, DocName, Score, Sort, Source, Highlights, Fields, InnerHits, ColumnCount };

struct JsonColumn {
    Column column;
    HitMember member;
};

constexpr JsonColumn JsonColumns[] = {{Sort, HitMember::Sort},
                                      {Source, HitMember::Source},
                                      {Highlights, HitMember::Highlight},
                                      {Fields, HitMember::Fields},
                                      {InnerHits, HitMember::InnerHits}};

void addRow(ResultRows &rows, const HitStream &hits, std::string_view index, std::string_view id)
{
    rows.add([&](ResultRows::Row &row) {
        if (!index.empty())
            row.setText(DocIndex, index);
        row.setText(DocName, id);
        if (const std::string_view score = hits.member(HitMember::Score); !score.empty())
            row.set(Score, search::scoreOf(CStringGetDatum(search::cStringOf(score))));
        for (const JsonColumn &each : JsonColumns)
            if (const std::string_view json = hits.member(each.member); !json.empty())
                row.setJson(each.column, json);
    });
}

void returnHits(FunctionCallInfo fcinfo)
{
    ResultRows rows(fcinfo, ColumnCount);
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    const HitsBody body(jsonArgument(fcinfo, 1, "body", JsonKind::Object));
    HitStream hits(table.session, body.request(table.options), body.paging(table.options));
    std::int64_t returned = 0;
    std::string index;
    std::string id;
    while (hits.next()) {
        addRow(rows, hits, extension::indexOf(hits, index), extension::idOf(hits, id));
        ++returned;
    }
    body.checkAll(hits, returned, table.options);
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_hits);

// veltranesearch_hits(relation regclass, body jsonb) returns a row for each hit.
Datum veltranesearch_hits(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { qm::functions::returnHits(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
