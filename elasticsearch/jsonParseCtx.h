// The lexer of the streaming readers: finds brackets, strings and member values of a JSON text that arrives
// in chunks cut anywhere, and tells a grammar of them. It builds no tree and judges no syntax.
#pragma once

#include "elasticsearch/jsonBlockScan.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Which strings a grammar wants to be told of, where it stands now.
enum class StringInterest { All, Short };

// Lexer state that lives as long as one response. Only allocation failures are thrown, and what the grammar
// throws.
//
// A Grammar has these members. A depth is that of objects behind the byte that is told of, positions point
// into the chunk, and texts are valid only during the call.
//   static constexpr bool WantsMemberValues      whether onMemberValue is called
//   static constexpr int DeepestObject           in deeper objects it wants no strings
//   static constexpr std::size_t ShortString     the length of the strings of StringInterest::Short
//   bool mustStop()                              nothing more is read then
//   bool wantsBytes(), void onByte(char)         each byte from the next one on, as long as it says so,
//   before what
//                                                else the byte means
//   StringInterest stringInterest(int depth)
//   std::size_t keptOfString()                   how much of a string that is cut must be kept to judge it
//   void onObjectOpened(const char *at, int depth), onObjectClosed(const char *at, int depth)
//   void onArrayClosed()                         the outermost one
//   void onString(std::string_view text, const char *quote, int depth)
//   void onMemberValue(std::string_view text)    the raw text of a scalar member value, from behind its colon
class JsonParseCtx
{
public:
    // A token that may span chunks: what earlier chunks brought, and its part in the current one.
    struct TextBuffer {
        const char *segmentBegin = nullptr;
        const char *segmentEnd = nullptr; // exclusive; valid once the token is closed
        std::string text;
        bool active = false; // the token has begun and not ended

        void open(const char *first);
        void close(const char *end);
        void reset();
        void resume(const char *chunk);
        // Keeps what the chunk holds of an unfinished token, up to `limit` bytes in all.
        void carryOver(const char *chunkEnd, std::size_t limit);
        // The whole text of a closed token; valid until the chunk ends or the next token opens.
        std::string_view whole();
    };

    // Where to find what matters in the bytes: one of blockScanners().
    explicit JsonParseCtx(const BlockScanner &scanner) : scanner(scanner) {}

    // Reads the next chunk, which needs to live only as long as the call. Returns what is behind the last
    // byte that was taken: the end of the chunk, unless the grammar wanted to stop.
    template <typename Grammar>
    const char *read(const char *chunk, std::size_t length, Grammar &grammar);

    int objectDepth() const { return objects; } // "{" minus "}" outside strings; may become negative
    int arrayDepth() const { return arrays; }   // "[" minus "]" outside strings; may become negative
    // The bytes held of an unfinished token.
    std::size_t heldBytes() const { return stringText.text.size() + valueText.text.size(); }

private:
    template <typename Grammar>
    const char *readPiece(const char *piece, std::size_t length, Grammar &grammar);
    template <typename Grammar>
    const char *readBlock(const char *block, std::size_t length, const BlockMasks &masks, Grammar &grammar);
    template <typename Grammar>
    std::uint64_t wantedBits(const BlockMasks &masks, std::uint64_t shortStrings, Grammar &grammar) const;
    template <typename Grammar>
    unsigned skipDeepObjects(const char *block, std::uint64_t brackets, Grammar &grammar);
    template <typename Grammar>
    unsigned tellBytes(const char *block, unsigned from, std::size_t length, const BlockMasks &masks,
                       Grammar &grammar);
    template <typename Grammar>
    void tell(const char *block, unsigned index, const BlockMasks &masks, Grammar &grammar);
    template <typename Grammar>
    void tellMemberValue(const char *at, Grammar &grammar);
    template <typename Grammar>
    std::uint64_t findShortStrings(const BlockMasks &masks);
    std::string_view textOfString(const char *block, unsigned index, std::uint64_t opening);

    static unsigned lowestBit(std::uint64_t bits) { return static_cast<unsigned>(__builtin_ctzll(bits)); }
    static unsigned highestBit(std::uint64_t bits)
    {
        return 63 - static_cast<unsigned>(__builtin_clzll(bits));
    }
    // The bits from `index` on, which may be 64.
    static std::uint64_t bitsFrom(unsigned index) { return index < 64 ? ~std::uint64_t{0} << index : 0; }

    // So much is scanned at a time.
    static constexpr std::size_t PieceBlocks = 24;

    const BlockScanner scanner;
    BlockCarry carry;
    int objects = 0;
    int arrays = 0;
    TextBuffer stringText;           // the current or last string, without its quotes, undecoded
    TextBuffer valueText;            // the current or last scalar member value, from behind its colon
    std::uint64_t openingBefore = 0; // the opening quotes of the block before, in the same chunk
    bool carriedShortString =
        false; // the chunk began in a string that may be a short one and is not closed yet
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

inline void JsonParseCtx::TextBuffer::reset()
{
    segmentBegin = segmentEnd = nullptr;
    text.clear();
    active = false;
}

inline std::string_view JsonParseCtx::TextBuffer::whole()
{
    const std::string_view segment(segmentBegin, static_cast<std::size_t>(segmentEnd - segmentBegin));
    if (text.empty())
        return segment;
    text.append(segment);
    segmentBegin = segmentEnd;
    return text;
}

inline void JsonParseCtx::TextBuffer::resume(const char *chunk)
{
    if (active)
        segmentBegin = segmentEnd = chunk;
}

inline void JsonParseCtx::TextBuffer::carryOver(const char *chunkEnd, std::size_t limit)
{
    if (!active)
        return;
    if (text.size() < limit) {
        const auto length = static_cast<std::size_t>(chunkEnd - segmentBegin);
        text.append(segmentBegin, std::min(length, limit - text.size()));
    }
    segmentBegin = segmentEnd = nullptr;
}

template <typename Grammar>
const char *JsonParseCtx::read(const char *chunk, std::size_t length, Grammar &grammar)
{
    const char *const end = chunk + length;
    stringText.resume(chunk);
    valueText.resume(chunk);
    openingBefore = 0;
    carriedShortString = stringText.active && stringText.text.size() <= Grammar::ShortString;
    const char *at = chunk;
    while (at != end && !grammar.mustStop())
        at = readPiece(at, std::min<std::size_t>(end - at, PieceBlocks * BlockBytes), grammar);
    if (!grammar.mustStop()) {
        stringText.active = carry.inString != 0;
        stringText.carryOver(at, grammar.keptOfString());
        valueText.carryOver(at, std::string::npos);
    }
    return at;
}

// Returns what stands behind the last byte that was taken.
template <typename Grammar>
const char *JsonParseCtx::readPiece(const char *piece, std::size_t length, Grammar &grammar)
{
    BlockMasks masks[PieceBlocks];
    (Grammar::WantsMemberValues ? scanner.separators : scanner.brackets)(piece, length, carry, masks);
    const char *const end = piece + length;
    const BlockMasks *blockMasks = masks;
    std::uint64_t before = openingBefore;
    for (const char *block = piece; block < end; block += BlockBytes, ++blockMasks) {
        std::uint64_t events = blockMasks->brackets | blockMasks->closing;
        if constexpr (Grammar::WantsMemberValues)
            events |= blockMasks->separators;
        if (events != 0 || grammar.wantsBytes()) {
            const std::size_t blockLength = std::min<std::size_t>(end - block, BlockBytes);
            openingBefore = before;
            const char *const taken = readBlock(block, blockLength, *blockMasks, grammar);
            if (grammar.mustStop())
                return taken;
        }
        before = blockMasks->opening;
        if (before > blockMasks->closing) // the last quote opens a string
            stringText.open(block + highestBit(before) + 1);
    }
    openingBefore = before;
    return end;
}

// Returns what stands behind the block, or behind the byte at which reading must stop.
template <typename Grammar>
[[gnu::flatten]] inline const char *JsonParseCtx::readBlock(const char *block, std::size_t length,
                                                            const BlockMasks &masks, Grammar &grammar)
{
    const std::uint64_t shortStrings = findShortStrings<Grammar>(masks);
    unsigned next = 0; // the first byte that is not taken yet
    if (grammar.wantsBytes())
        next = tellBytes(block, next, length, masks, grammar);
    while (!grammar.mustStop()) {
        const std::uint64_t wanted = wantedBits(masks, shortStrings, grammar) & bitsFrom(next);
        if (wanted == 0)
            return block + length;
        if (objects > Grammar::DeepestObject) {
            next = skipDeepObjects(block, wanted, grammar);
            continue;
        }
        next = lowestBit(wanted);
        tell(block, next, masks, grammar);
        ++next;
        if (grammar.wantsBytes())
            next = tellBytes(block, next, length, masks, grammar);
    }
    return block + next;
}

// The closing quotes of strings that have just the length of a short one, and that of a string which began in
// an earlier chunk and is as short so far.
template <typename Grammar>
inline std::uint64_t JsonParseCtx::findShortStrings(const BlockMasks &masks)
{
    constexpr unsigned Span = Grammar::ShortString + 1; // from the opening quote to the closing one
    std::uint64_t strings = masks.opening << Span | openingBefore >> (BlockBytes - Span);
    strings &= masks.closing;
    if (carriedShortString && masks.closing != 0) {
        carriedShortString = false;
        strings |= masks.closing & (0 - masks.closing);
    }
    return strings;
}

// The bytes that can mean something to the grammar where it stands now.
template <typename Grammar>
inline std::uint64_t JsonParseCtx::wantedBits(const BlockMasks &masks, std::uint64_t shortStrings,
                                              Grammar &grammar) const
{
    if (objects > Grammar::DeepestObject)
        return masks.brackets;
    const std::uint64_t strings =
        grammar.stringInterest(objects) == StringInterest::Short ? shortStrings : masks.closing;
    return masks.brackets | strings | (Grammar::WantsMemberValues ? masks.separators : 0);
}

// Counts brackets as long as objects are too deep to matter. Returns the index behind the last one taken.
template <typename Grammar>
unsigned JsonParseCtx::skipDeepObjects(const char *block, std::uint64_t brackets, Grammar &grammar)
{
    int openObjects = objects;
    int openArrays = arrays;
    unsigned next = 0;
    do {
        const unsigned index = lowestBit(brackets);
        brackets &= brackets - 1;
        const char bracket = block[index];
        // Sums instead of branches: which bracket comes next is nothing a processor could foresee.
        openObjects += (bracket == '{') - (bracket == '}');
        openArrays += (bracket == '[') - (bracket == ']');
        next = index + 1;
        if (openArrays == 0 && bracket == ']')
            grammar.onArrayClosed();
    } while (brackets != 0 && openObjects > Grammar::DeepestObject);
    objects = openObjects;
    arrays = openArrays;
    return next;
}

// Tells of bytes as long as the grammar wants them, with all else that they mean. Returns the index behind
// the last.
template <typename Grammar>
inline unsigned JsonParseCtx::tellBytes(const char *block, unsigned from, std::size_t length,
                                        const BlockMasks &masks, Grammar &grammar)
{
    const std::uint64_t events = masks.brackets | masks.closing;
    unsigned next = from;
    for (; next < length && grammar.wantsBytes() && !grammar.mustStop(); ++next) {
        grammar.onByte(block[next]);
        if ((events >> next & 1) != 0)
            tell(block, next, masks, grammar);
    }
    return next;
}

// Tells of a bracket, of a separator, or of a quote that closes a string.
template <typename Grammar>
inline void JsonParseCtx::tell(const char *block, unsigned index, const BlockMasks &masks, Grammar &grammar)
{
    const char *const at = block + index;
    if constexpr (Grammar::WantsMemberValues) {
        if (*at == ':')
            return valueText.open(at + 1);
        if (*at == ',')
            return tellMemberValue(at, grammar);
    }
    switch (*at) {
    case '{':
        ++objects;
        if constexpr (Grammar::WantsMemberValues)
            valueText.reset();
        grammar.onObjectOpened(at, objects);
        break;
    case '}':
        --objects;
        grammar.onObjectClosed(at, objects);
        if constexpr (Grammar::WantsMemberValues)
            tellMemberValue(at, grammar);
        break;
    case '[':
        ++arrays;
        if constexpr (Grammar::WantsMemberValues)
            valueText.reset();
        break;
    case ']':
        --arrays;
        if constexpr (Grammar::WantsMemberValues)
            valueText.reset();
        if (arrays == 0)
            grammar.onArrayClosed();
        break;
    default:
        grammar.onString(textOfString(block, index, masks.opening), at, objects);
        break;
    }
}

template <typename Grammar>
inline void JsonParseCtx::tellMemberValue(const char *at, Grammar &grammar)
{
    if (!valueText.active)
        return;
    valueText.close(at);
    grammar.onMemberValue(valueText.whole());
}

// The string that the quote at `index` closes.
inline std::string_view JsonParseCtx::textOfString(const char *block, unsigned index, std::uint64_t opening)
{
    const std::uint64_t before = opening & ~bitsFrom(index);
    if (before == 0) {
        stringText.close(block + index);
        return stringText.whole();
    }
    const unsigned first = highestBit(before) + 1;
    return {block + first, index - first};
}

} // namespace zq::elasticsearch
