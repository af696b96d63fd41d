// The lexer of the streaming readers: nesting depths, strings and member values of a JSON text that arrives
// in chunks cut anywhere. It builds no tree and judges no syntax.
#pragma once

#include "jsonByteScan.h"
#include "veltraneExport.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

/// Lexer state that lives as long as one response. For each chunk: beginChunk, then for each byte either
/// step or, where nothing matters, skipPlain, then endChunk. Only allocation failures are thrown.
class VELTRANE_EXPORT JsonParseCtx
{
public:
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
    /// Returns the next byte in [at, end) that must go through step, or `end`. The bytes before it change
    /// neither depths nor tokens.
    const char *skipPlain(const char *at, const char *end);
    /// Takes one byte, plain or not.
    void step(const char *at);

    int prevArrayDepth = 0;  ///< arrayDepth before the last byte that was stepped over
    int arrayDepth = 0;      ///< "[" minus "]" outside strings; may become negative
    int prevObjectDepth = 0; ///< objectDepth before the last byte that was stepped over
    int objectDepth = 0;     ///< "{" minus "}" outside strings; may become negative
    bool stringClosed = false;
    bool valueClosed = false;
    bool escapePending = false; ///< the last byte was a backslash that was not itself escaped
    TextBuffer stringText;      ///< the current or last string, without its quotes, undecoded
    TextBuffer valueText;       ///< the current or last scalar member value, from behind its colon

private:
    const char *skipStringBytes(const char *at, const char *end);
    const char *skipBytesOutsideStrings(const char *at, const char *end);
    void stepOverQuote(const char *at);
    void stepOverMemberValue(const char *at);

    const bool trackMemberValues;
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

inline const char *JsonParseCtx::skipPlain(const char *at, const char *end)
{
    return stringText.active ? skipStringBytes(at, end) : skipBytesOutsideStrings(at, end);
}

inline const char *JsonParseCtx::skipStringBytes(const char *at, const char *end)
{
    using byteScan::ByteSet;
    if (escapePending && at != end) {
        escapePending = false;
        ++at;
    }
    while ((at = byteScan::find<ByteSet::StringEnds>(at, end)) != end && *at == '\\') {
        if (end - at == 1) {
            escapePending = true;
            return end;
        }
        at += 2; // whatever was escaped, inside a string it is plain
    }
    return at;
}

inline const char *JsonParseCtx::skipBytesOutsideStrings(const char *at, const char *end)
{
    using byteScan::ByteSet;
    const char *const next = trackMemberValues ? byteScan::find<ByteSet::Members>(at, end)
                                               : byteScan::find<ByteSet::Brackets>(at, end);
    if (next != at) {
        escapePending = false;
    }
    return next;
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
    // A backslash escapes outside strings too: a quote behind it opens nothing.
    const bool escaped = escapePending;
    escapePending = *at == '\\' && !escaped;
    if (*at == '"' && !escaped) {
        stepOverQuote(at);
        return;
    }
    if (stringText.active) {
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
