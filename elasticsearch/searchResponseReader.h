// The exact reader of Elasticsearch search and scroll responses: keeps the text of a response and finds in it
// what belongs to each hit.
#pragma once

#include "elasticsearch/byteBuffer.h"
#include "elasticsearch/fieldFinder.h"
#include "elasticsearch/jsonCursor.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zq::elasticsearch
{

// What a response says beside its hits.
struct ResponseSummary {
    bool timedOut = false;
    std::int64_t totalShards = 0;
    std::int64_t successfulShards = 0; // shards that the search could skip included
    std::int64_t failedShards = 0;
    std::int64_t lackingClusters = 0; // that were skipped, failed or responded in part
    bool hasTotal = false;
    std::int64_t total = 0;         // documents that match, which may be more than the response holds
    bool totalIsLowerBound = false; // more may match
    std::string scrollId;           // decoded; empty when there is none

    // Whether hits may be missing.
    bool isPartial() const
    {
        return timedOut || failedShards > 0 || successfulShards < totalShards || lackingClusters > 0;
    }
};

// The members of a hit that are kept.
enum class HitMember { Index, Id, Score, Source, Highlight, Sort, Fields, InnerHits, Explanation, Count };

// A value of a field that was looked for, as it stands in the response, strings with their quotes.
struct FieldValue {
    std::uint32_t path;
    std::string_view value;
};

// Reads one response after the other, each while it arrives. A member of an object counts where it stands,
// names are told from values, however they are escaped, and of two members of one name the last counts.
// Outside of the containers
// `_source`, `highlight` and those of the same rank in a hit the grammar of JSON is held to all through;
// inside of them strings and the balance of the brackets, and in a `_source` what FieldFinder tells. Only
// allocation failures are thrown.
class SearchResponseReader
{
public:
    // It looks for hits in what has arrived whenever that are `stride` bytes more. Fewer cost time: it stops
    // at the end of what is there by an exception.
    explicit SearchResponseReader(const BlockScanner &scanner = blockScanners().front(),
                                  std::size_t stride = std::size_t{512} << 10);

    // What is looked for in the `_source` of each hit from now on: fields by their paths, as FieldFinder
    // finds them. To be called before there is anything of a response.
    void lookFor(const std::vector<std::string> &paths) { finder = FieldFinder(paths); }

    // Starts over with another response; the memory serves again.
    void clear();

    // Takes the next bytes of the response. Returns false when it cannot become a search response any more.
    bool read(const char *data, std::size_t length);
    // Whether the response came to its end and is a whole search response.
    bool finish();
    // Why it is none: what breaks the grammar and where, or that something is missing. Empty as long as it is
    // good.
    const std::string &problem() const { return problemText; }
    // The text of the response as far as it was read.
    std::string_view text() const { return buffer.view(); }
    // The `error` member of what is no search response for that reason; empty without one.
    std::string_view error() const { return viewOf(errorSpan); }
    // The `_shards` member and the `aggregations` member, empty without one.
    std::string_view shards() const { return viewOf(shardsSpan); }
    std::string_view aggregations() const { return viewOf(aggregationsSpan); }

    const ResponseSummary &summary() const { return found; }
    std::size_t hitCount() const { return hits.size(); }
    // A member of a hit as it stands in the response, strings without their quotes; it is in the reader's
    // memory. Empty when it is missing or null.
    std::string_view member(std::size_t hit, HitMember member) const
    {
        return viewOf(hits[hit][static_cast<std::size_t>(member)]);
    }
    // The values of the hit's fields that were looked for, in the order of its `_source`: how many were
    // found, and each, with the number of its path.
    std::size_t fieldCount(std::size_t hit) const
    {
        return finder.looksForNothing() ? 0 : fieldEnds[hit] - firstField(hit);
    }
    FieldValue field(std::size_t hit, std::size_t i) const
    {
        const FoundField &field = fields[firstField(hit) + i];
        return {field.path, viewOf({field.begin, field.length})};
    }
    // The bytes held.
    std::size_t heldBytes() const
    {
        return buffer.size() + hits.size() * sizeof(Hit) + fields.size() * sizeof(FoundField) +
               fieldEnds.size() * sizeof(std::size_t);
    }

private:
    // A part of the text, which is bounded by 4 GiB; of length 0 when there is none.
    struct Span {
        std::uint32_t begin = 0;
        std::uint32_t length = 0;
    };
    using Hit = std::array<Span, static_cast<std::size_t>(HitMember::Count)>;

    // What the bytes from `parsed` on belong to.
    enum class Place { Start, Response, Hits, HitArray, End };

    std::string_view viewOf(Span span) const { return text().substr(span.begin, span.length); }
    Span spanOf(std::string_view view) const;
    std::size_t firstField(std::size_t hit) const { return hit == 0 ? 0 : fieldEnds[hit - 1]; }
    void advance();
    void readStep(JsonCursor &cursor);
    void readResponseMember(JsonCursor &cursor);
    void readHitsMember(JsonCursor &cursor);
    void readHit(JsonCursor &cursor);
    std::string_view readSource(JsonCursor &cursor);
    void forgetHits();
    void readTotal(JsonCursor &cursor);
    void readShards(JsonCursor &cursor);
    void readClusters(JsonCursor &cursor);
    void enter(Place inner);

    const std::size_t stride;
    ByteBuffer buffer;
    JsonStructure structure;
    std::size_t seen = 0;   // what is before was looked at
    std::size_t parsed = 0; // what is before was understood
    Place place = Place::Start;
    bool isFirst = true;  // of the members or elements at that place
    bool hasHits = false; // their list came to its end
    std::vector<Hit> hits;
    FieldFinder finder;
    std::vector<FoundField> fields;     // of all hits, and perhaps of a part of the next
    std::vector<std::size_t> fieldEnds; // where those of each hit end; empty when nothing is looked for
    ResponseSummary found;
    Span errorSpan;
    Span shardsSpan;
    Span aggregationsSpan;
    std::string problemText;
};

} // namespace zq::elasticsearch
