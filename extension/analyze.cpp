// ANALYZE of a foreign table of veltranesearch: counts the documents and takes a sample of them.
#include "server/errorBoundary.h"

#include "extension/analyze.h"
#include "extension/hitRow.h"
#include "extension/options.h"
#include "extension/requestOfScan.h"
#include "server/memory.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace qm::extension
{

using server::callServer;
using server::guardEntry;

namespace
{

// The most hits that one search returns.
constexpr int ResultWindow = 10000;

// What a document may take in a table, as long as nobody has looked.
constexpr double BytesOfADocument = 1000;

// Gives each document a score of its own by chance, so that the best are a sample.
constexpr const char *RandomQuery =
    R"({"function_score":{"query":{"match_all":{}},"random_score":{},"boost_mode":"replace"}})";

search::HitStream sampleOf(const TableOptions &options, const std::vector<Column> &columns, int rows)
{
    Parameters parameters;
    parameters.query = RandomQuery;
    search::SearchRequest request = requestOfScan(options, columns, parameters, {});
    request.needsScores = true;
    search::Paging paging;
    paging.limit = rows;
    paging.partialResults = options.partialResults;
    return {search::ClusterSession::of(options.serverId, options.userId, options.cluster), request, paging};
}

std::vector<Column> allColumns(Relation relation)
{
    Bitmapset *wholeRow =
        callServer([] { return bms_make_singleton(0 - FirstLowInvalidHeapAttributeNumber); });
    return readColumns(RelationGetDescr(relation), wholeRow);
}

int sample(Relation relation, HeapTuple *rows, int wanted, double *documents)
{
    tupleDesc *descriptor = RelationGetDescr(relation);
    const MemoryContext caller = CurrentMemoryContext;
    const TableOptions options = readOptions(RelationGetRelid(relation), GetUserId());
    HitRow row(allColumns(relation), caller);
    row.setNullsBadValues(options.nullsBadValues);
    row.setScore("1"); // as every document has that no query finds
    search::HitStream hits = sampleOf(options, row.columns(), std::min(wanted, ResultWindow));
    std::vector<Datum> values(static_cast<std::size_t>(descriptor->natts) + 1);
    const auto nulls = std::make_unique<bool[]>(values.size());
    int count = 0;
    while (count < wanted && hits.next()) {
        row.make(hits, descriptor->natts, values.data(), nulls.get());
        callServer([&] { rows[count] = heap_form_tuple(descriptor, values.data(), nulls.get()); });
        ++count;
    }
    hits.close();
    *documents = static_cast<double>(hits.summary().total);
    return count;
}

int acquireSampleRows(Relation relation, int, HeapTuple *rows, int wanted, double *live, double *dead)
{
    *dead = 0;
    return guardEntry([&] { return sample(relation, rows, wanted, live); });
}

} // namespace

bool analyzeForeignTable(Relation relation, AcquireSampleRowsFunc *acquire, BlockNumber *pages)
{
    guardEntry([&] {
        const TableOptions options = readOptions(RelationGetRelid(relation), GetUserId());
        const auto documents = static_cast<double>(sampleOf(options, {}, 0).count());
        const double blocks = documents * BytesOfADocument / BLCKSZ;
        *pages = static_cast<BlockNumber>(std::clamp(blocks, 1.0, 4e9));
    });
    *acquire = acquireSampleRows;
    return true;
}

} // namespace qm::extension
