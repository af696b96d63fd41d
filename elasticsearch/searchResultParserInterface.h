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

/// Reads one response while it arrives, and hands each finished hit to onNewDocument. It holds one hit at a
/// time, never the whole body. It counts brackets, tracks strings and knows a few member names at fixed
/// depths; everything else is skipped unjudged.
///
/// Call addData in stream order, then finish, then the getters. Only what onNewDocument throws and
/// allocation failures are thrown; after an exception the reader must not be fed again.
class VELTRANE_EXPORT SearchResultParserInterface
{
public:
    SearchResultParserInterface();
    virtual ~SearchResultParserInterface();
    SearchResultParserInterface(const SearchResultParserInterface &) = delete;
    SearchResultParserInterface &operator=(const SearchResultParserInterface &) = delete;

    /// Reads the next `length` bytes, which need to live only as long as the call. Returns false when the
    /// response is an error or cannot be read; see getErrorMessage. A length of 0 only asks for the verdict.
    bool addData(const char *data, std::size_t length);

    /// Returns whether the response came to its proper end. If it did not, and `message` is not null,
    /// `*message` is replaced by a text that tells the reader's state.
    bool finish(std::string *message);

    /// The number of documents that match the search, which may be more than the response holds; its low 32
    /// bits.
    int getTotalHitCount() const { return totalHitCount; }
    /// The whole number.
    std::int64_t getTotalHits() const { return totalHits; }
    /// Whether the search counted no further, so that more documents may match.
    bool isTotalLowerBound() const { return totalIsLowerBound; }
    /// The scroll id, still escaped as it stood in the response; empty when there was none.
    const std::string &getScrollId() const { return scrollId; }
    /// What is known about the failure, once addData has returned false; may be empty.
    const std::string &getErrorMessage() const { return content; }

    /// What the response tells about shards and time; zero and false where it tells nothing.
    const SearchResponseStatus &getStatus() const { return statusCapture.status(); }
    /// Whether the array of hits came to its end: what is no search response has none.
    bool hasHits() const { return hitsEnded; }
    /// The bytes held for values that are still growing, so that a caller can set them a bound.
    std::size_t pendingBytes() const;

    /// Takes one hit: its decoded id, the raw texts of its `_source` object, score and highlight object, and
    /// the raw text of its `type` field. What a hit lacks is passed as an earlier hit left it. The strings
    /// are valid only during the call.
    virtual void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                               const std::string &highlight, const std::string &docType) = 0;

private:
    /// What the next closed string is taken as.
    enum class NextString : int { Nothing = 0, DocId = 1, ScrollId = 2, DocType = 3 };

    bool mustStop() const { return errorFlag && !inSource; }
    bool capturesScalar() const { return inScalar && !inSource && !inHighlight; }
    bool captures() const { return capturesScalar() || statusCapture.isActive(); }
    const char *takePiece(const char *piece, std::size_t length);
    const char *takeBlock(const char *block, std::size_t length, const BlockMasks &masks);
    std::uint64_t findTypeNames(const BlockMasks &masks);
    std::uint64_t wantedBits(const BlockMasks &masks, std::uint64_t typeNames) const;
    unsigned captureValue(const char *block, unsigned from, std::size_t length, const BlockMasks &masks);
    void captureByte(char byte);
    void takeScalarByte(char byte);
    void endScalar();
    void takeEvent(const char *block, unsigned index, const BlockMasks &masks);
    unsigned skipDeepObjects(const char *block, std::uint64_t brackets);
    void onObjectOpened(const char *brace);
    void onObjectClosed(const char *brace);
    void onArrayClosed();
    std::string_view textOfString(const char *block, unsigned index, std::uint64_t opening);
    void onStringClosed(std::string_view text, const char *quote);
    void takeOuterString(std::string_view text, const char *quote);
    void takeHitString(std::string_view text, const char *quote);
    void takeInnerString(std::string_view text);
    void decodeDocId(std::string_view text);
    std::string *copyTarget();
    void copyUpTo(const char *end);

    std::unique_ptr<JsonParseCtx> jsonCtx;
    SearchStatusCapture statusCapture;
    std::string scalarText; ///< raw text of a "total" or "_score" value
    std::string content;    ///< raw `_source` of the current hit; after an error, the error text
    std::string highlight;
    std::string docId;
    std::string docType;
    std::string score;
    std::string scrollId;
    const char *copyFrom = nullptr;  ///< from here on the chunk's bytes still have to reach copyTarget
    std::uint64_t openingBefore = 0; ///< the opening quotes of the block before, in the same chunk
    std::int64_t totalHits = 0;
    int totalHitCount = 0; ///< the low 32 bits of totalHits
    int hitTag = 0; ///< how many "hits" we are inside of: 1 the outer object, 2 the array of hits
    NextString nextIs = NextString::Nothing;
    bool carriedTypeName = false; ///< the chunk began in a string that may be a "type" and is not closed yet
    bool totalIsLowerBound = false;
    bool hitsEnded = false;
    bool errorFlag = false;
    bool inSource = false;    ///< the bytes are being copied into `content`
    bool inHighlight = false; ///< into `highlight`, unless inSource
    bool inScalar = false;    ///< into `scalarText`, unless inSource or inHighlight
};

} // namespace zq::elasticsearch
