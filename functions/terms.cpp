// The SQL function veltranesearch_terms: the most frequent values of fields.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "functions/aggregation.h"
#include "functions/arguments.h"
#include "functions/resultRows.h"
#include "search/failure.h"
#include "search/searchRequest.h"

#include <charconv>
#include <optional>

namespace qm::functions
{
namespace
{

using server::callServer;
using zq::elasticsearch::JsonCursor;

enum Column { Field, Value, Documents, ColumnCount };

struct Term {
    std::string value;
    std::int64_t documents = -1;
};

struct FieldTerms {
    std::vector<Term> terms;
    std::int64_t missed = 0; // of any term, so many documents may not be counted
    bool isThere = false;
};

// Aggregations whose names are the places of the fields.
std::string aggregationsOf(const std::vector<std::string> &fields, std::int32_t size)
{
    std::string all = "{";
    for (std::size_t i = 0; i < fields.size(); ++i)
        all += (i == 0 ? "\"" : ",\"") + std::to_string(i) + R"(":{"terms":{"field":)" +
               search::jsonString(fields[i]) + R"(,"size":)" + std::to_string(size) + "}}";
    return all + "}";
}

// A text, a number or a truth value; false for anything else.
bool takeKey(JsonCursor &cursor, std::string &key)
{
    if (cursor.peek() == '"')
        return zq::elasticsearch::decodeJsonText(cursor.string(), key);
    key = zq::elasticsearch::takeText(cursor);
    return !key.empty() && key != "null";
}

// Dates, truth values and the like have a form that is better to read than their keys.
std::optional<Term> readTerm(JsonCursor &cursor)
{
    Term term;
    bool hasKey = false;
    std::string shown;
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "key")
            hasKey = takeKey(cursor, term.value);
        else if (name == "key_as_string")
            shown = zq::elasticsearch::takeText(cursor);
        else if (name == "doc_count")
            term.documents = zq::elasticsearch::takeCount(cursor);
        else
            cursor.value();
    });
    if (!shown.empty())
        term.value = shown;
    return hasKey && term.documents >= 0 ? std::optional(term) : std::nullopt;
}

FieldTerms readTerms(JsonCursor &cursor, const AggregationSearch &search)
{
    FieldTerms found;
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "doc_count_error_upper_bound") {
            found.missed = zq::elasticsearch::takeCount(cursor);
        } else if (name == "buckets" && cursor.peek() == '[') {
            found.isThere = true;
            cursor.take('[');
            for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false) {
                const std::optional<Term> term = cursor.peek() == '{' ? readTerm(cursor) : std::nullopt;
                if (!term)
                    search.refuse("a bucket without a key or a count");
                found.terms.push_back(*term);
            }
        } else {
            cursor.value();
        }
    });
    return found;
}

// Shards tell only their most frequent terms, so that one may miss what is less frequent there.
void warnOfMissed(const std::string &field, std::int64_t missed)
{
    const std::string name = search::quoted(field);
    const std::string bound =
        missed < 0 ? "It is not known by how many."
                   : "Of each value up to " + std::to_string(missed) + " documents may not be counted.";
    callServer([&] {
        ereport(WARNING, (errmsg("the counts of the field \"%s\" may be too low", name.c_str()),
                          errdetail_internal("%s", bound.c_str()),
                          errhint("With a greater \"size\" they are closer; veltranesearch_buckets counts "
                                  "exactly.")));
    });
}

std::int32_t sizeArgument(FunctionCallInfo fcinfo)
{
    const std::int32_t size = PG_GETARG_INT32(3);
    if (size < 1)
        throw server::FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                               "argument \"size\" takes a whole number from 1 on");
    return size;
}

std::vector<FieldTerms> searchTerms(AggregationSearch &search, const std::vector<std::string> &fields,
                                    const std::string &query, std::int32_t size)
{
    std::vector<FieldTerms> found(fields.size());
    const std::string_view aggregations = search.run(query, aggregationsOf(fields, size));
    zq::elasticsearch::readJson(aggregations, [&](JsonCursor &cursor) {
        forEachMember(cursor, [&](std::string_view name) {
            std::size_t place = found.size();
            std::from_chars(name.data(), name.data() + name.size(), place);
            if (place < found.size() && cursor.peek() == '{')
                found[place] = readTerms(cursor, search);
            else
                cursor.value();
        });
    });
    for (std::size_t i = 0; i < fields.size(); ++i)
        if (!found[i].isThere)
            search.refuse("no aggregation \"" + std::to_string(i) + "\"");
    return found;
}

void returnTerms(FunctionCallInfo fcinfo)
{
    ResultRows rows(fcinfo, ColumnCount);
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    const std::vector<std::string> fields = textsArgument(fcinfo, 1, "fields");
    const std::string query = jsonArgument(fcinfo, 2, "query", JsonKind::Object);
    const std::int32_t size = sizeArgument(fcinfo);
    if (fields.empty())
        return;
    AggregationSearch search(table);
    const std::vector<FieldTerms> found = searchTerms(search, fields, query, size);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (found[i].missed != 0)
            warnOfMissed(fields[i], found[i].missed);
        for (const Term &term : found[i].terms)
            rows.add([&](ResultRows::Row &row) {
                row.setText(Field, fields[i]);
                row.setText(Value, term.value);
                row.set(Documents, Int64GetDatum(term.documents));
            });
    }
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_terms);

// veltranesearch_terms(relation regclass, fields text[], query jsonb, size int) returns the most frequent
// values of each field and in how many documents they are.
Datum veltranesearch_terms(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { qm::functions::returnTerms(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
