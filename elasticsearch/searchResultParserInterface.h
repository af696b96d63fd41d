// Streaming reader of Elasticsearch search and scroll responses.
#pragma once

#include "elasticsearch/jsonParseCtx.h"
#include "elasticsearch/searchResponseStatus.h"
#include "elasticsearch/veltraneExport.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Reads one response while it arrives, and hands each finished hit to onNewDocument. It holds one hit at a
// time, never the whole body. It counts brackets, tracks strings and knows a few member names at fixed
// depths; everything else is skipped unjudged.
// // Call addData in stream order, then finish, then the getters. Only what onNewDocument throws and
// allocation failures are thrown; after an exception the reader must not be fed again.
class VELTRANE_EXPORT SearchResultParserInterface
{
public:
    SearchResultParserInterface();
    // With one way of scanning instead of the fastest.
    explicit SearchResultParserInterface(const BlockScanner &scanner);
    virtual ~SearchResultParserInterface();
    SearchResultParserInterface(const SearchResultParserInterface &) = delete;
    SearchResultParserInterface &operator=(const SearchResultParserInterface &) = delete;

    // Reads the next `length` bytes, which need to live only as long as the call. Returns false when the
    // response is an error or cannot be read; see getErrorMessage. A length of 0 only asks for the verdict.
    bool addData(const char *data, std::size_t length);

    // Returns whether the response came to its proper end. If it did not, and `message` is not null,
    // `*message` is replaced by a text that tells the reader's state.
    bool finish(std::string *message);

    // The number of documents that match the search, which may be more than the response holds; its low 32
    // bits.
    int getTotalHitCount() const { return totalHitCount; }
    // The whole number.
    std::int64_t getTotalHits() const { return totalHits; }
    // Whether the search counted no further, so that more documents may match.
    bool isTotalLowerBound() const { return totalIsLowerBound; }
    // The scroll id, still escaped as it stood in the response; empty when there was none.
    const std::string &getScrollId() const { return scrollId; }
    // What is known about the failure, once addData has returned false; may be empty.
    const std::string &getErrorMessage() const { return content; }

    // What the response tells about shards and time; zero and false where it tells nothing.
    const SearchResponseStatus &getStatus() const { return statusCapture.status(); }
    // Whether the array of hits came to its end: what is no search response has none.
    bool hasHits() const { return hitsEnded; }
    // The bytes held for values that are still growing, so that a caller can set them a bound.
    std::size_t pendingBytes() const;

    // Takes one hit: its decoded id, the raw texts of its `_source` object, score and highlight object, and
    // the raw text of its `type` field. What a hit lacks is passed as an earlier hit left it. The strings
    // are valid only during the call.
    virtual void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                               const std::string &highlight, const std::string &docType) = 0;

private:
    // What the next closed string is taken as.
    enum class NextString : int { Nothing = 0, DocId = 1, ScrollId = 2, DocType = 3 };

    // What the lexer tells and asks.
    friend class JsonParseCtx;
    static constexpr bool WantsMemberValues = false;
    static constexpr int DeepestObject = 4; // the source
    static constexpr std::size_t ShortString = std::string_view("type").size();
    bool mustStop() const { return errorFlag && !inSource; }
    bool wantsBytes() const { return capturesScalar() || statusCapture.isActive(); }
    void onByte(char byte);
    StringInterest stringInterest(int depth) const;
    std::size_t keptOfString() const;
    void onObjectOpened(const char *brace, int depth);
    void onObjectClosed(const char *brace, int depth);
    void onArrayClosed();
    void onString(std::string_view text, const char *quote, int depth);
    void onMemberValue(std::string_view) {}

    bool capturesScalar() const { return inScalar && !inSource && !inHighlight; }
    void takeScalarByte(char byte);
    void endScalar();
    void takeOuterString(std::string_view text, const char *quote, int depth);
    void takeHitString(std::string_view text, const char *quote);
    void takeInnerString(std::string_view text);
    void decodeDocId(std::string_view text);
    std::string *copyTarget();
    void copyUpTo(const char *end);

    std::unique_ptr<JsonParseCtx> jsonCtx;
    SearchStatusCapture statusCapture;
    std::string scalarText; // raw text of a "total" or "_score" value
    std::string content;    // raw `_source` of the current hit; after an error, the error text
    std::string highlight;
    std::string docId;
    std::string docType;
    std::string score;
    std::string scrollId;
    const char *copyFrom = nullptr; // from here on the chunk's bytes still have to reach copyTarget
    std::int64_t totalHits = 0;
    int totalHitCount = 0; // the low 32 bits of totalHits
    int hitTag = 0;        // how many "hits" we are inside of: 1 the outer object, 2 the array of hits
    NextString nextIs = NextString::Nothing;
    bool totalIsLowerBound = false;
    bool hitsEnded = false;
    bool errorFlag = false;
    bool inSource = false;    // the bytes are being copied into `content`
    bool inHighlight = false; // into `highlight`, unless inSource
    bool inScalar = false;    // into `scalarText`, unless inSource or inHighlight
};

} // namespace zq::elasticsearch
