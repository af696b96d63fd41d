// The lexer of the streaming readers: nesting depths, strings and member values of a JSON text that arrives
// in chunks cut anywhere. It builds no tree and judges no syntax.
#pragma once

#include "elasticsearch/jsonBlockScan.h"
#include "elasticsearch/veltraneExport.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

/// Lexer state that lives as long as one response. For each chunk: beginChunk, then for each piece of it scan
/// and then step for each byte that scan found, then endChunk. A reader that needs less than step tells works
/// on the masks itself, and keeps the depths. Only allocation failures are thrown.
class VELTRANE_EXPORT JsonParseCtx
{
public:
    /// The most bytes that one call of scan takes.
    static constexpr std::size_t pieceBytes = 24 * blockBytes;
    /// What scan found in a piece, a block each.
    using PieceMasks = BlockMasks[pieceBytes / blockBytes];

    /// A token that may span chunks: what earlier chunks brought, and its part in the current one.
    struct TextBuffer {
        const char *segmentBegin = nullptr;
        const char *segmentEnd = nullptr; ///< exclusive; valid once the token is closed
        std::string text;
        bool active = false; ///< the token has begun and not ended

        void open(const char *first);
        void close(const char *end);
        void reset();
        void resume(const char *chunk);
        /// Keeps what the chunk holds of an unfinished token, up to `limit` bytes in all.
        void carryOver(const char *chunkEnd, std::size_t limit);
        /// The whole text of a closed token; valid until the chunk ends or the next token opens.
        std::string_view whole();
    };

    /// With `trackMemberValues`, `valueText` and `valueClosed` follow the scalar member values; without it
    /// they stay as they are and the separators count as plain bytes.
    explicit JsonParseCtx(bool trackMemberValues);

    /// Continues the unfinished tokens at the first byte of a chunk.
    void beginChunk(const char *chunk);
    /// Ends a chunk whose bytes were read up to `end`. Of an unfinished string at most
    /// `stringLimit` bytes are kept, for a reader that can tell by then that it will not need the rest.
    void endChunk(const char *end, std::size_t stringLimit = std::string::npos);
    /// Finds the bytes that matter among the next `length`, at most pieceBytes.
    void scan(const char *piece, std::size_t length, PieceMasks &masks)
    {
        scanBlocks(piece, length, carry, masks);
    }
    /// Whether the bytes scanned so far end inside a string.
    bool endsInString() const { return carry.inString != 0; }
    /// Takes one byte that scan found; all others change neither depths nor tokens.
    void step(const char *at);

    int prevArrayDepth = 0;  ///< arrayDepth before the last byte that was stepped over
    int arrayDepth = 0;      ///< "[" minus "]" outside strings; may become negative
    int prevObjectDepth = 0; ///< objectDepth before the last byte that was stepped over
    int objectDepth = 0;     ///< "{" minus "}" outside strings; may become negative
    bool stringClosed = false;
    bool valueClosed = false;
    TextBuffer stringText; ///< the current or last string, without its quotes, undecoded
    TextBuffer valueText;  ///< the current or last scalar member value, from behind its colon

private:
    void stepOverQuote(const char *at);
    void stepOverMemberValue(const char *at);

    const bool trackMemberValues;
    const BlockScan scanBlocks;
    BlockCarry carry;
};

inline void JsonParseCtx::TextBuffer::open(const char *first)
{
    text.clear();
    active = true;
    segmentBegin = segmentEnd = first;
}

inline void JsonParseCtx::TextBuffer::close(const char *end)
{
    segmentEnd = end;
    active = false;
}

inline std::string_view JsonParseCtx::TextBuffer::whole()
{
    const std::string_view segment(segmentBegin, static_cast<std::size_t>(segmentEnd - segmentBegin));
    if (text.empty()) {
        return segment;
    }
    text.append(segment);
    segmentBegin = segmentEnd;
    return text;
}

inline void JsonParseCtx::TextBuffer::resume(const char *chunk)
{
    if (active) {
        segmentBegin = segmentEnd = chunk;
    }
}

inline void JsonParseCtx::TextBuffer::carryOver(const char *chunkEnd, std::size_t limit)
{
    if (active) {
        if (text.size() < limit) {
            const auto length = static_cast<std::size_t>(chunkEnd - segmentBegin);
            text.append(segmentBegin, std::min(length, limit - text.size()));
        }
        segmentBegin = segmentEnd = nullptr;
    }
}

inline void JsonParseCtx::beginChunk(const char *chunk)
{
    stringText.resume(chunk);
    valueText.resume(chunk);
}

inline void JsonParseCtx::endChunk(const char *end, std::size_t stringLimit)
{
    stringText.carryOver(end, stringLimit);
    valueText.carryOver(end, std::string::npos);
}

inline void JsonParseCtx::stepOverQuote(const char *at)
{
    if (stringText.active) {
        stringText.close(at);
        stringClosed = true;
    } else {
        stringText.open(at + 1);
    }
}

inline void JsonParseCtx::step(const char *at)
{
    prevArrayDepth = arrayDepth;
    prevObjectDepth = objectDepth;
    stringClosed = false;
    valueClosed = false;
    if (*at == '"') {
        stepOverQuote(at);
        return;
    }
    // Sums instead of branches: which bracket comes next is nothing a processor could foresee.
    objectDepth += (*at == '{') - (*at == '}');
    arrayDepth += (*at == '[') - (*at == ']');
    if (trackMemberValues) {
        stepOverMemberValue(at);
    }
}

inline void JsonParseCtx::stepOverMemberValue(const char *at)
{
    switch (*at) {
    case '{':
    case '[':
    case ']':
        valueText.reset();
        break;
    case ':':
        valueText.open(at + 1);
        break;
    case ',':
    case '}':
        if (valueText.active) {
            valueText.close(at);
            valueClosed = true;
        }
        break;
    default:
        break;
    }
}

} // namespace zq::elasticsearch
