// Streaming reader of Elasticsearch search and scroll responses.
#include "elasticsearch/searchResultParserInterface.h"

#include "elasticsearch/jsonString.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zq::elasticsearch
{

namespace
{

// Object depths, counted from the outermost brace of the response.
constexpr int responseDepth = 1;
constexpr int hitsDepth = 2;
constexpr int hitDepth = 3;
constexpr int sourceDepth = 4;

// Values of hitTag.
constexpr int insideHits = 1;
constexpr int insideHitArray = 2;

// No member name that we know is longer, so of any other string that much tells it from all of them.
constexpr std::size_t longestName = std::string_view("_scroll_id").size();

// How far the closing quote of a "type" stands behind the opening one.
constexpr unsigned typeNameSpan = 5;

unsigned lowestBit(std::uint64_t bits) { return static_cast<unsigned>(__builtin_ctzll(bits)); }

unsigned highestBit(std::uint64_t bits) { return 63 - static_cast<unsigned>(__builtin_clzll(bits)); }

/// The bits from `index` on, which may be 64.
std::uint64_t bitsFrom(unsigned index) { return index < 64 ? ~std::uint64_t{0} << index : 0; }

/// Compares with a name whose length the compiler knows.
template <std::size_t size>
bool is(std::string_view text, const char (&name)[size])
{
    return text.size() == size - 1 && std::memcmp(text.data(), name, size - 1) == 0;
}

} // namespace

SearchResultParserInterface::SearchResultParserInterface() : jsonCtx(std::make_unique<JsonParseCtx>(false))
{
    // Room for an ordinary hit.
    scalarText.reserve(1024);
    content.reserve(10240);
    highlight.reserve(2048);
}

SearchResultParserInterface::~SearchResultParserInterface() = default;

bool SearchResultParserInterface::addData(const char *data, std::size_t length)
{
    if (length == 0) {
        return !errorFlag;
    }
    const char *const end = data + length;
    jsonCtx->beginChunk(data);
    copyFrom = data;
    openingBefore = 0;
    carriedTypeName = jsonCtx->stringText.active && jsonCtx->stringText.text.size() < typeNameSpan;
    const char *at = data;
    while (at != end && !mustStop()) {
        at = takePiece(at, std::min<std::size_t>(end - at, JsonParseCtx::pieceBytes));
    }
    copyUpTo(at);
    if (!mustStop()) {
        jsonCtx->stringText.active = jsonCtx->endsInString();
        jsonCtx->endChunk(at, nextIs == NextString::Nothing ? longestName + 1 : std::string::npos);
    }
    return !errorFlag;
}

/// Returns what stands behind the last byte that was taken.
const char *SearchResultParserInterface::takePiece(const char *piece, std::size_t length)
{
    JsonParseCtx::PieceMasks masks;
    jsonCtx->scan(piece, length, masks);
    const char *const end = piece + length;
    const BlockMasks *blockMasks = masks;
    for (const char *block = piece; block < end; block += blockBytes, ++blockMasks) {
        if ((blockMasks->brackets | blockMasks->closing) != 0 || captures()) {
            const std::size_t blockLength = std::min<std::size_t>(end - block, blockBytes);
            const char *const taken = takeBlock(block, blockLength, *blockMasks);
            if (mustStop()) {
                return taken;
            }
        }
        openingBefore = blockMasks->opening;
        if (blockMasks->opening > blockMasks->closing) { // the last quote opens a string
            jsonCtx->stringText.open(block + highestBit(blockMasks->opening) + 1);
        }
    }
    return end;
}

/// Returns what stands behind the block, or behind the byte at which reading must stop.
[[gnu::flatten]] inline const char *
SearchResultParserInterface::takeBlock(const char *block, std::size_t length, const BlockMasks &masks)
{
    const std::uint64_t typeNames = findTypeNames(masks);
    unsigned next = 0; // the first byte that is not taken yet
    if (captures()) {
        next = captureValue(block, next, length, masks);
    }
    while (!mustStop()) {
        const std::uint64_t wanted = wantedBits(masks, typeNames) & bitsFrom(next);
        if (wanted == 0) {
            return block + length;
        }
        if (jsonCtx->objectDepth > sourceDepth) {
            next = skipDeepObjects(block, wanted);
            continue;
        }
        next = lowestBit(wanted);
        takeEvent(block, next, masks);
        ++next;
        if (captures()) {
            next = captureValue(block, next, length, masks);
        }
    }
    return block + next;
}

/// The closing quotes that may end a "type" at the depth where that name matters: those of strings of four
/// bytes, and that of a string which began in an earlier chunk and is as short so far.
inline std::uint64_t SearchResultParserInterface::findTypeNames(const BlockMasks &masks)
{
    std::uint64_t names = masks.opening << typeNameSpan | openingBefore >> (blockBytes - typeNameSpan);
    names &= masks.closing;
    if (carriedTypeName && masks.closing != 0) {
        carriedTypeName = false;
        names |= masks.closing & (0 - masks.closing);
    }
    return names;
}

/// The bytes that can change the reader's state where it stands now.
inline std::uint64_t SearchResultParserInterface::wantedBits(const BlockMasks &masks,
                                                             std::uint64_t typeNames) const
{
    if (jsonCtx->objectDepth > sourceDepth) {
        return masks.brackets;
    }
    if (jsonCtx->objectDepth == sourceDepth && nextIs != NextString::DocType) {
        return masks.brackets | typeNames;
    }
    return masks.brackets | masks.closing;
}

/// Counts brackets as long as objects are too deep to matter. Returns the index behind the last one taken.
unsigned SearchResultParserInterface::skipDeepObjects(const char *block, std::uint64_t brackets)
{
    int objectDepth = jsonCtx->objectDepth;
    int arrayDepth = jsonCtx->arrayDepth;
    unsigned next = 0;
    do {
        const unsigned index = lowestBit(brackets);
        brackets &= brackets - 1;
        const char bracket = block[index];
        // Sums instead of branches: which bracket comes next is nothing a processor could foresee.
        objectDepth += (bracket == '{') - (bracket == '}');
        arrayDepth += (bracket == '[') - (bracket == ']');
        next = index + 1;
        if (arrayDepth == 0 && bracket == ']') {
            onArrayClosed();
        }
    } while (brackets != 0 && objectDepth > sourceDepth);
    jsonCtx->objectDepth = objectDepth;
    jsonCtx->arrayDepth = arrayDepth;
    return next;
}

std::size_t SearchResultParserInterface::pendingBytes() const
{
    return content.size() + highlight.size() + scalarText.size() + jsonCtx->stringText.text.size();
}

bool SearchResultParserInterface::finish(std::string *message)
{
    if (jsonCtx->objectDepth == 0 && jsonCtx->arrayDepth == 0 && hitTag == 0 &&
        nextIs == NextString::Nothing && !errorFlag) {
        return true;
    }
    if (message != nullptr) {
        *message = "Finish error : { => " + std::to_string(jsonCtx->objectDepth) + ", [ => " +
                   std::to_string(jsonCtx->arrayDepth) + ", hittag => " + std::to_string(hitTag) +
                   ", nextis => " + std::to_string(static_cast<int>(nextIs)) + ", error => " +
                   (errorFlag ? "1" : "0");
    }
    return false;
}

/// Takes bytes while a value is captured, with all else that they mean. Returns the index behind the last.
inline unsigned SearchResultParserInterface::captureValue(const char *block, unsigned from,
                                                          std::size_t length, const BlockMasks &masks)
{
    const std::uint64_t events = masks.brackets | masks.closing;
    unsigned next = from;
    for (; next < length && captures() && !mustStop(); ++next) {
        captureByte(block[next]);
        if ((events >> next & 1) != 0) {
            takeEvent(block, next, masks);
        }
    }
    return next;
}

inline void SearchResultParserInterface::captureByte(char byte)
{
    if (capturesScalar()) {
        takeScalarByte(byte);
    }
    if (statusCapture.isActive()) {
        statusCapture.takeByte(byte);
    }
}

/// A total and a score end at the next comma or brace, wherever it stands: a total that is an object yields
/// what its first member holds.
inline void SearchResultParserInterface::takeScalarByte(char byte)
{
    switch (byte) {
    case ':':
        scalarText.clear();
        break;
    case ',':
    case '}':
        endScalar();
        break;
    default:
        scalarText.push_back(byte);
        break;
    }
}

void SearchResultParserInterface::endScalar()
{
    inScalar = false;
    if (hitTag == insideHits) {
        // Two totals that count something: we cannot tell which of them is the response's own.
        errorFlag = errorFlag || totalHitCount != 0;
        totalHits = std::strtol(scalarText.c_str(), nullptr, 10);
        totalHitCount = static_cast<int>(totalHits);
    } else if (hitTag == insideHitArray) {
        score = scalarText;
    } else {
        errorFlag = true;
    }
}

/// Acts on a bracket, or on a quote that closes a string.
inline void SearchResultParserInterface::takeEvent(const char *block, unsigned index, const BlockMasks &masks)
{
    const char *const at = block + index;
    switch (*at) {
    case '{':
        if (++jsonCtx->objectDepth == sourceDepth) {
            onObjectOpened(at);
        }
        break;
    case '}':
        --jsonCtx->objectDepth;
        onObjectClosed(at);
        break;
    case '[':
        ++jsonCtx->arrayDepth;
        break;
    case ']':
        if (--jsonCtx->arrayDepth == 0) {
            onArrayClosed();
        }
        break;
    default:
        onStringClosed(textOfString(block, index, masks.opening), at);
        break;
    }
}

/// The string that the quote at `index` closes.
inline std::string_view SearchResultParserInterface::textOfString(const char *block, unsigned index,
                                                                  std::uint64_t opening)
{
    const std::uint64_t before = opening & ~bitsFrom(index);
    if (before == 0) {
        jsonCtx->stringText.close(block + index);
        return jsonCtx->stringText.whole();
    }
    const unsigned first = highestBit(before) + 1;
    return {block + first, index - first};
}

inline void SearchResultParserInterface::onArrayClosed()
{
    if (hitTag == insideHitArray) {
        hitTag = insideHits;
        hitsEnded = true;
    }
}

inline void SearchResultParserInterface::onObjectOpened(const char *brace)
{
    // The name that started the capture and its colon were copied too; the object itself starts here.
    if (std::string *const target = copyTarget()) {
        target->clear();
        copyFrom = brace;
    }
}

inline void SearchResultParserInterface::onObjectClosed(const char *brace)
{
    const int depth = jsonCtx->objectDepth;
    if (depth == responseDepth && hitTag == insideHits) {
        hitTag = 0;
    } else if (depth == hitDepth && copyTarget() != nullptr) {
        copyUpTo(brace + 1);
        if (inSource) {
            inSource = false;
        } else {
            inHighlight = false;
        }
        copyFrom = brace; // a highlight that waited for the source to end takes the brace as well
    } else if (depth == hitsDepth && hitTag == insideHitArray && jsonCtx->arrayDepth == 1) {
        copyUpTo(brace);
        onNewDocument(docId, content, score, highlight, docType);
    }
}

inline void SearchResultParserInterface::onStringClosed(std::string_view text, const char *quote)
{
    if (jsonCtx->objectDepth == sourceDepth) {
        takeInnerString(text);
    } else if (jsonCtx->objectDepth == hitDepth) {
        if (jsonCtx->arrayDepth == 1 && hitTag == insideHitArray) {
            takeHitString(text, quote);
        } else if (jsonCtx->arrayDepth == 0 && hitTag == insideHits && is(text, "gte")) {
            totalIsLowerBound = true; // the "relation" of a total that is an object
        }
    } else if (jsonCtx->objectDepth < hitDepth) {
        takeOuterString(text, quote);
    }
}

void SearchResultParserInterface::takeOuterString(std::string_view text, const char *quote)
{
    const bool outsideArrays = jsonCtx->arrayDepth == 0;
    if (outsideArrays && hitTag == 0) {
        statusCapture.onString(text, jsonCtx->objectDepth);
    }
    if (nextIs == NextString::ScrollId) {
        scrollId = text;
        nextIs = NextString::Nothing;
    } else if (is(text, "hits")) {
        ++hitTag;
    } else if (jsonCtx->objectDepth == hitsDepth && outsideArrays && hitTag == insideHits &&
               is(text, "total")) {
        inScalar = true;
    } else if (jsonCtx->objectDepth == responseDepth && outsideArrays) {
        if (is(text, "_scroll_id")) {
            nextIs = NextString::ScrollId;
        } else if (is(text, "error")) {
            copyUpTo(quote);
            errorFlag = true;
            inSource = true;
        }
    }
}

inline void SearchResultParserInterface::takeHitString(std::string_view text, const char *quote)
{
    copyUpTo(quote); // what follows may go somewhere else
    if (nextIs == NextString::DocId) {
        nextIs = NextString::Nothing;
        decodeDocId(text);
    } else if (is(text, "_source")) {
        inSource = true;
    } else if (is(text, "_id")) {
        nextIs = NextString::DocId;
    } else if (is(text, "_score")) {
        inScalar = true;
    } else if (is(text, "highlight")) {
        inHighlight = true;
    }
}

inline void SearchResultParserInterface::takeInnerString(std::string_view text)
{
    if (nextIs == NextString::DocType) {
        docType = text;
        nextIs = NextString::Nothing;
    } else if (is(text, "type")) {
        nextIs = NextString::DocType;
        docType.clear();
    }
}

void SearchResultParserInterface::decodeDocId(std::string_view text)
{
    if (!decodeJsonString(text, docId)) {
        content = "json to utf8 conversion error";
        errorFlag = true;
    }
}

inline std::string *SearchResultParserInterface::copyTarget()
{
    if (inSource) {
        return &content;
    }
    return inHighlight ? &highlight : nullptr;
}

/// Brings the bytes before `end` to where they are being copied, if anywhere.
inline void SearchResultParserInterface::copyUpTo(const char *end)
{
    if (std::string *const target = copyTarget()) {
        target->append(copyFrom, static_cast<std::size_t>(end - copyFrom));
    }
    copyFrom = end;
}

} // namespace zq::elasticsearch
