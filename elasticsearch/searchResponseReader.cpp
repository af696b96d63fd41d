// The exact reader of Elasticsearch search and scroll responses.
#include "elasticsearch/searchResponseReader.h"

#include "elasticsearch/jsonString.h"

#include <algorithm>
#include <charconv>
#include <numeric>

namespace zq::elasticsearch
{
namespace
{

// The cluster keeps the number of shards, and that of clusters, in 32 bits.
constexpr std::int64_t MostShards = INT32_MAX;

std::int64_t count(JsonCursor &cursor, std::int64_t most)
{
    cursor.peek();
    const std::size_t begin = cursor.position();
    const std::string_view digits = cursor.scalar();
    std::int64_t number = 0;
    const auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (problem != std::errc() || end != digits.data() + digits.size() || number < 0 || number > most)
        throw JsonError("count expected", begin);
    return number;
}

// A string, decoded.
std::string decoded(JsonCursor &cursor)
{
    cursor.peek();
    const std::size_t begin = cursor.position();
    std::string text;
    if (!decodeJsonText(cursor.string(), text))
        throw JsonError("string that is not valid Unicode", begin);
    return text;
}

struct KnownMember {
    std::string_view name;
    HitMember member;
};

constexpr KnownMember HitStrings[] = {{"_index", HitMember::Index}, {"_id", HitMember::Id}};
constexpr KnownMember HitContainers[] = {
    {"highlight", HitMember::Highlight},
    {"sort", HitMember::Sort},
    {"fields", HitMember::Fields},
    {"inner_hits", HitMember::InnerHits},
    {"_explanation", HitMember::Explanation},
};

template <std::size_t size>
const KnownMember *find(const KnownMember (&known)[size], std::string_view name)
{
    const auto *found =
        std::find_if(known, known + size, [&](const KnownMember &each) { return each.name == name; });
    return found == known + size ? nullptr : found;
}

} // namespace

SearchResponseReader::SearchResponseReader(const BlockScanner &scanner, std::size_t stride)
    : stride(stride), structure(scanner)
{
}

void SearchResponseReader::clear()
{
    buffer.clear();
    structure.clear();
    seen = parsed = 0;
    place = Place::Start;
    isFirst = true;
    hasHits = false;
    forgetHits();
    found = {};
    errorSpan = shardsSpan = aggregationsSpan = {};
    problemText.clear();
}

void SearchResponseReader::forgetHits()
{
    hits.clear();
    fields.clear();
    fieldEnds.clear();
}

bool SearchResponseReader::read(const char *data, std::size_t length)
{
    if (!problemText.empty())
        return false;
    buffer.append(data, length);
    structure.extend(buffer.data(), buffer.size()); // while the bytes are at hand
    // A hit that is cut is read anew when more has arrived: at least as much again as there was of it.
    if (buffer.size() - seen >= std::max(stride, seen - parsed))
        advance();
    return problemText.empty();
}

// Understands as much of the text as there is to understand.
void SearchResponseReader::advance()
{
    seen = buffer.size();
    try {
        for (;;) {
            JsonCursor cursor(text(), structure, parsed);
            if (place == Place::End) {
                if (!cursor.isAtEnd())
                    throw JsonError("text behind the response", cursor.position());
                return;
            }
            readStep(cursor);
            parsed = cursor.position();
        }
    } catch (const JsonNeedsMore &) {
        // It goes on at `parsed`.
    } catch (const JsonError &fault) {
        problemText = std::string(fault.what()) + " at byte " + std::to_string(fault.position + 1);
    }
    structure.forgetBefore(parsed);
}

bool SearchResponseReader::finish()
{
    if (problemText.empty())
        advance();
    if (!problemText.empty())
        return false;
    if (place != Place::End)
        problemText =
            text().empty() ? "empty response" : "response cut off at byte " + std::to_string(text().size());
    else if (errorSpan.length > 0)
        problemText = "error in place of hits";
    else if (!hasHits)
        problemText = "no hits";
    return problemText.empty();
}

SearchResponseReader::Span SearchResponseReader::spanOf(std::string_view view) const
{
    return {static_cast<std::uint32_t>(view.data() - text().data()), static_cast<std::uint32_t>(view.size())};
}

void SearchResponseReader::enter(Place inner)
{
    place = inner;
    isFirst = true;
}

// Reads what comes next as a whole, or throws and has changed nothing.
void SearchResponseReader::readStep(JsonCursor &cursor)
{
    switch (place) {
    case Place::Start:
        cursor.take('{');
        enter(Place::Response);
        break;
    case Place::Response:
        readResponseMember(cursor);
        break;
    case Place::Hits:
        readHitsMember(cursor);
        break;
    case Place::HitArray:
        readHit(cursor);
        break;
    case Place::End:
        break;
    }
}

void SearchResponseReader::readResponseMember(JsonCursor &cursor)
{
    std::string_view name;
    if (!cursor.nextMember(isFirst, name)) {
        place = Place::End;
        return;
    }
    if (name == "hits") {
        cursor.take('{');
        forgetHits();
        hasHits = found.hasTotal = found.totalIsLowerBound = false;
        found.total = 0;
        enter(Place::Hits);
        return;
    }
    if (name == "_scroll_id")
        found.scrollId = decoded(cursor);
    else if (name == "timed_out")
        found.timedOut = cursor.value() == "true";
    else if (name == "_shards")
        readShards(cursor);
    else if (name == "_clusters")
        readClusters(cursor);
    else if (name == "error")
        errorSpan = spanOf(cursor.value());
    else if (name == "aggregations")
        aggregationsSpan = spanOf(cursor.value());
    else
        cursor.value();
    isFirst = false;
}

void SearchResponseReader::readHitsMember(JsonCursor &cursor)
{
    std::string_view name;
    if (!cursor.nextMember(isFirst, name)) {
        enter(Place::Response);
        isFirst = false;
        return;
    }
    if (name == "hits") {
        cursor.take('[');
        forgetHits();
        enter(Place::HitArray);
        return;
    }
    if (name == "total")
        readTotal(cursor);
    else
        cursor.value();
    isFirst = false;
}

// A number, -1 where nobody counted, or from version 7 on an object that tells how far was counted.
void SearchResponseReader::readTotal(JsonCursor &cursor)
{
    std::int64_t total = 0;
    bool hasTotal = true;
    bool isLowerBound = false;
    if (cursor.peek() != '{') {
        JsonCursor ahead(cursor);
        hasTotal = ahead.scalar() != "-1";
        if (hasTotal)
            total = count(cursor, INT64_MAX);
        else
            cursor = ahead;
    } else {
        hasTotal = false;
        forEachMember(cursor, [&](std::string_view name) {
            if (name == "value") {
                total = count(cursor, INT64_MAX);
                hasTotal = true;
            } else if (name == "relation") {
                isLowerBound = decoded(cursor) != "eq";
            } else {
                cursor.value();
            }
        });
    }
    found.hasTotal = hasTotal;
    found.total = total;
    found.totalIsLowerBound = isLowerBound;
}

void SearchResponseReader::readShards(JsonCursor &cursor)
{
    cursor.peek();
    const std::size_t begin = cursor.position();
    std::int64_t total = 0;
    std::int64_t successful = 0;
    std::int64_t failed = 0;
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "total")
            total = count(cursor, MostShards);
        else if (name == "successful")
            successful = count(cursor, MostShards);
        else if (name == "failed")
            failed = count(cursor, MostShards);
        else
            cursor.value();
    });
    found.totalShards = total;
    found.successfulShards = successful;
    found.failedShards = failed;
    shardsSpan = spanOf(text().substr(begin, cursor.position() - begin));
}

// All counts but those of the clusters there are and of those that responded in full tell of lacking ones.
void SearchResponseReader::readClusters(JsonCursor &cursor)
{
    constexpr std::array<std::string_view, 4> Lacking = {"skipped", "partial", "failed", "running"};
    std::array<std::int64_t, Lacking.size()> counts{};
    forEachMember(cursor, [&](std::string_view name) {
        const auto *known = std::find(Lacking.begin(), Lacking.end(), name);
        if (known != Lacking.end())
            counts[static_cast<std::size_t>(known - Lacking.begin())] = count(cursor, MostShards);
        else
            cursor.value();
    });
    found.lackingClusters = std::accumulate(counts.begin(), counts.end(), std::int64_t{0});
}

void SearchResponseReader::readHit(JsonCursor &cursor)
{
    if (!cursor.nextElement(isFirst)) {
        hasHits = true;
        enter(Place::Hits);
        isFirst = false;
        return;
    }
    cursor.peek();
    const std::size_t begin = cursor.position();
    Hit hit{};
    forEachMember(cursor, [&](std::string_view name) {
        const auto keep = [&](HitMember member, std::string_view value) {
            hit[static_cast<std::size_t>(member)] = value == "null" ? Span{} : spanOf(value);
        };
        if (const KnownMember *known = find(HitStrings, name))
            hit[static_cast<std::size_t>(known->member)] = spanOf(cursor.string());
        else if (name == "_score")
            keep(HitMember::Score, cursor.scalar());
        else if (name == "_source")
            keep(HitMember::Source, readSource(cursor));
        else if (const KnownMember *container = find(HitContainers, name))
            keep(container->member, cursor.peek() == 'n' ? cursor.scalar() : cursor.container());
        else
            cursor.value();
    });
    if (hit[static_cast<std::size_t>(HitMember::Id)].length == 0)
        throw JsonError("hit without an _id", begin);
    hits.push_back(hit);
    if (!finder.looksForNothing())
        fieldEnds.push_back(fields.size());
    isFirst = false;
}

// What was found before in this hit does not count: it was of another `_source`, or the hit was cut off.
std::string_view SearchResponseReader::readSource(JsonCursor &cursor)
{
    fields.resize(fieldEnds.empty() ? 0 : fieldEnds.back());
    const char first = cursor.peek();
    if (first == 'n')
        return cursor.scalar();
    if (first != '{' || finder.looksForNothing())
        return cursor.container();
    const std::size_t begin = cursor.position();
    finder.read(cursor, fields);
    return text().substr(begin, cursor.position() - begin);
}

} // namespace zq::elasticsearch
