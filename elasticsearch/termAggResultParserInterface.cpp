// Streaming reader of Elasticsearch responses that carry terms aggregations.
#include "elasticsearch/termAggResultParserInterface.h"

#include "elasticsearch/jsonParseCtx.h"

#include <algorithm>
#include <new>

namespace zq::elasticsearch
{

namespace
{

// Object depths, counted from the outermost brace of the response.
constexpr int responseDepth = 1;
constexpr int aggregationsDepth = 2;
constexpr int rootAggDepth = 3;
constexpr int subAggDepth = 4;
constexpr int bucketDepth = 5;

} // namespace

TermAggResultParserInterface::TermAggResultParserInterface(bool collectValues_)
    : jsonCtx(std::make_unique<JsonParseCtx>(true)), collectValues(collectValues_)
{
    // Room for an ordinary list of keys.
    valueList.reserve(65536);
}

TermAggResultParserInterface::~TermAggResultParserInterface() = default;

bool TermAggResultParserInterface::addData(const char *data, std::size_t length)
{
    if (length == 0) {
        return !errorFlag;
    }
    try {
        takeChunk(data, length);
    } catch (const std::bad_alloc &) {
        fail("out of memory"); // short enough to need none
    }
    return !errorFlag;
}

void TermAggResultParserInterface::takeChunk(const char *data, std::size_t length)
{
    const char *const end = data + length;
    jsonCtx->beginChunk(data);
    const char *at = data;
    while (at != end && !errorFlag) {
        at = takePiece(at, std::min<std::size_t>(end - at, JsonParseCtx::pieceBytes));
    }
    jsonCtx->endChunk(at);
}

/// Returns what stands behind the last byte that was taken.
const char *TermAggResultParserInterface::takePiece(const char *piece, std::size_t length)
{
    JsonParseCtx::PieceMasks masks;
    jsonCtx->scan(piece, length, masks);
    for (std::size_t begin = 0; begin < length; begin += blockBytes) {
        const BlockMasks &block = masks[begin / blockBytes];
        std::uint64_t wanted = block.opening | block.closing | block.brackets | block.separators;
        for (; wanted != 0; wanted &= wanted - 1) {
            const char *const at = piece + begin + __builtin_ctzll(wanted);
            jsonCtx->step(at);
            takeEvent();
            if (errorFlag) {
                return at + 1;
            }
        }
    }
    return piece + length;
}

bool TermAggResultParserInterface::finish()
{
    return jsonCtx->objectDepth == 0 && jsonCtx->arrayDepth == 0 && !errorFlag;
}

/// Acts on what the lexer made of the byte it just stepped over.
void TermAggResultParserInterface::takeEvent()
{
    switch (jsonCtx->objectDepth) {
    case responseDepth:
        takeResponseEvent();
        break;
    case aggregationsDepth:
        takeAggregationsEvent();
        break;
    case rootAggDepth:
        takeRootAggEvent();
        break;
    case subAggDepth:
        takeSubAggEvent();
        break;
    case bucketDepth:
        takeBucketEvent();
        break;
    default:
        break;
    }
}

inline bool TermAggResultParserInterface::leftObject() const
{
    return jsonCtx->objectDepth < jsonCtx->prevObjectDepth;
}

inline bool TermAggResultParserInterface::isNamePlace() const
{
    return jsonCtx->stringClosed && jsonCtx->arrayDepth == 0;
}

void TermAggResultParserInterface::takeResponseEvent()
{
    if (leftObject() || jsonCtx->stringClosed) {
        inAggregations = false;
    }
    if (!isNamePlace()) {
        return;
    }
    const std::string_view text = jsonCtx->stringText.whole();
    if (text == "aggregations") {
        inAggregations = true;
    } else if (text == "error") {
        errorKeySeen = true;
    } else if (errorKeySeen) {
        fail(text);
    }
}

void TermAggResultParserInterface::takeAggregationsEvent()
{
    if (leftObject() || jsonCtx->stringClosed) {
        inRootAgg = isNamePlace() && inAggregations && jsonCtx->stringText.whole() == "rootagg";
    }
}

void TermAggResultParserInterface::takeRootAggEvent()
{
    if (!leftObject() && !jsonCtx->stringClosed) {
        return;
    }
    if (!bucketOwner.empty()) {
        emitAttributes();
    }
    valueList.clear();
    bucketOwner.clear();
    valueCount = 0;
    if (isNamePlace() && inRootAgg) {
        const std::string_view text = jsonCtx->stringText.whole();
        if (text != "doc_count") {
            bucketOwner = text;
        }
    }
}

void TermAggResultParserInterface::takeSubAggEvent()
{
    if (isNamePlace() && !bucketOwner.empty() && jsonCtx->stringText.whole() == "buckets") {
        inBuckets = true;
    }
    if (expectKeyValue) {
        fail("Parsing error, fail to retrieve field value");
    }
}

void TermAggResultParserInterface::takeBucketEvent()
{
    if (jsonCtx->arrayDepth != 1 || !inBuckets) {
        return;
    }
    if (expectKeyValue) {
        if (jsonCtx->valueClosed) {
            onNextFieldIsAttributeValue();
        }
    } else if (jsonCtx->stringClosed) {
        expectKeyValue = jsonCtx->stringText.whole() == "key";
    }
}

void TermAggResultParserInterface::onNextFieldIsAttributeValue()
{
    expectKeyValue = false;
    if (collectValues) {
        valueList += valueList.empty() ? '[' : ',';
        valueList += jsonCtx->valueText.whole();
    }
    ++valueCount;
}

void TermAggResultParserInterface::emitAttributes()
{
    if (valueList.empty()) {
        valueList = "[";
    }
    valueList += ']';
    onAttributes(bucketOwner, valueCount, valueList);
}

void TermAggResultParserInterface::fail(std::string_view message)
{
    errorFlag = true;
    errorMessage = message;
}

} // namespace zq::elasticsearch
