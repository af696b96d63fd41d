// The SQL function veltranesearch_buckets: all buckets of a composite aggregation, whatever their number.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "functions/aggregation.h"
#include "functions/arguments.h"
#include "functions/resultRows.h"
#include "search/searchRequest.h"

namespace qm::functions
{
namespace
{

using zq::elasticsearch::JsonCursor;

enum Column { Key, Documents, Aggregations, ColumnCount };

struct Bucket {
    std::string_view key; // a JSON object
    std::int64_t documents = -1;
    std::string aggregations = "{"; // members of a JSON object
};

// Asks for the buckets page by page, each of which begins behind the last key of the one before.
class BucketWalk
{
public:
    BucketWalk(const SearchedTable &table, FunctionCallInfo fcinfo)
        : search(table), sources(jsonArgument(fcinfo, 1, "sources", JsonKind::Array)),
          children(jsonArgument(fcinfo, 2, "aggregations", JsonKind::Object)),
          query(jsonArgument(fcinfo, 3, "query", JsonKind::Object)), pageSize(table.options.batchSize)
    {
    }

    // Calls take(bucket) for each of the next page; false when there is no further page.
    template <typename Take>
    bool nextPage(Take &&take);

private:
    std::string aggregation() const;
    template <typename Take>
    void readComposite(JsonCursor &cursor, Take &&take);
    template <typename Take>
    std::string readBuckets(JsonCursor &cursor, Take &&take);
    Bucket readBucket(JsonCursor &cursor) const;

    AggregationSearch search;
    const std::string sources;
    const std::string children;
    const std::string query;
    const std::int64_t pageSize;
    std::string after; // the key that the last page ended with; empty before the first
    bool hasBuckets = false;
};

std::string BucketWalk::aggregation() const
{
    return R"({"buckets":{"composite":{"size":)" + std::to_string(pageSize) + R"(,"sources":)" + sources +
           (after.empty() ? "" : R"(,"after":)" + after) + R"(},"aggs":)" + children + "}}";
}

template <typename Take>
bool BucketWalk::nextPage(Take &&take)
{
    const std::string_view found = search.run(query, aggregation());
    const std::string before = std::move(after);
    after.clear();
    hasBuckets = false;
    zq::elasticsearch::readJson(found, [&](JsonCursor &cursor) {
        forEachMember(cursor, [&](std::string_view name) {
            if (name == "buckets" && cursor.peek() == '{')
                readComposite(cursor, take);
            else
                cursor.value();
        });
    });
    if (!hasBuckets)
        search.refuse("no buckets");
    if (!after.empty() && after.front() != '{')
        search.refuse("a key to go on behind that is no object");
    if (!after.empty() && after == before)
        search.refuse("the same page of buckets again");
    return !after.empty();
}

// Early releases of version 6 name no key to go on behind: it is that of the last bucket.
template <typename Take>
void BucketWalk::readComposite(JsonCursor &cursor, Take &&take)
{
    std::string lastKey;
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "after_key") {
            after = cursor.value();
        } else if (name == "buckets" && cursor.peek() == '[') {
            hasBuckets = true;
            lastKey = readBuckets(cursor, take);
        } else {
            cursor.value();
        }
    });
    if (after.empty())
        after = lastKey;
}

// Returns the key of the last bucket; empty when there is none.
template <typename Take>
std::string BucketWalk::readBuckets(JsonCursor &cursor, Take &&take)
{
    std::string lastKey;
    cursor.take('[');
    for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false) {
        Bucket bucket = readBucket(cursor);
        lastKey = bucket.key;
        bucket.aggregations += "}";
        take(bucket);
    }
    return lastKey;
}

Bucket BucketWalk::readBucket(JsonCursor &cursor) const
{
    Bucket bucket;
    if (cursor.peek() != '{')
        search.refuse("a bucket that is no object");
    forEachMember(cursor, [&](std::string_view member) {
        // An aggregation of the same name comes behind what is the bucket's own.
        if (member == "key" && bucket.key.empty()) {
            bucket.key = cursor.value();
        } else if (member == "doc_count" && bucket.documents < 0) {
            bucket.documents = zq::elasticsearch::takeCount(cursor);
        } else {
            const std::string name = search::jsonString(member);
            bucket.aggregations += (bucket.aggregations.size() > 1 ? "," : "") + name + ":";
            bucket.aggregations += cursor.value();
        }
    });
    if (bucket.key.empty() || bucket.key.front() != '{' || bucket.documents < 0)
        search.refuse("a bucket without a key or a count");
    return bucket;
}

void returnBuckets(FunctionCallInfo fcinfo)
{
    ResultRows rows(fcinfo, ColumnCount);
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    BucketWalk walk(table, fcinfo);
    while (walk.nextPage([&](const Bucket &bucket) {
        rows.add([&](ResultRows::Row &row) {
            row.setJson(Key, bucket.key);
            row.set(Documents, Int64GetDatum(bucket.documents));
            row.setJson(Aggregations, bucket.aggregations);
        });
    })) {
    }
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_buckets);

// veltranesearch_buckets(relation regclass, sources jsonb, aggregations jsonb, query jsonb) returns the
// buckets, each with its key, the number of its documents and the aggregations within it.
Datum veltranesearch_buckets(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { qm::functions::returnBuckets(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
