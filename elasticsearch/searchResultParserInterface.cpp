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
constexpr int ResponseDepth = 1;
constexpr int HitsDepth = 2;
constexpr int HitDepth = 3;
constexpr int SourceDepth = 4;

// Values of hitTag.
constexpr int InsideHits = 1;
constexpr int InsideHitArray = 2;

// No member name that we know is longer, so of any other string that much tells it from all of them.
constexpr std::size_t LongestName = std::string_view("_scroll_id").size();

// Compares with a name whose length the compiler knows.
template <std::size_t size>
bool is(std::string_view text, const char (&name)[size])
{
    return text.size() == size - 1 && std::memcmp(text.data(), name, size - 1) == 0;
}

} // namespace

SearchResultParserInterface::SearchResultParserInterface()
    : SearchResultParserInterface(blockScanners().front())
{
}

SearchResultParserInterface::SearchResultParserInterface(const BlockScanner &scanner)
    : jsonCtx(std::make_unique<JsonParseCtx>(scanner))
{
    // Room for an ordinary hit.
    scalarText.reserve(1024);
    content.reserve(10240);
    highlight.reserve(2048);
}

SearchResultParserInterface::~SearchResultParserInterface() = default;

bool SearchResultParserInterface::addData(const char *data, std::size_t length)
{
    if (length == 0)
        return !errorFlag;
    copyFrom = data;
    copyUpTo(jsonCtx->read(data, length, *this));
    return !errorFlag;
}

inline StringInterest SearchResultParserInterface::stringInterest(int depth) const
{
    return depth == SourceDepth && nextIs != NextString::DocType ? StringInterest::Short
                                                                 : StringInterest::All;
}

inline std::size_t SearchResultParserInterface::keptOfString() const
{
    return nextIs == NextString::Nothing ? LongestName + 1 : std::string::npos;
}

std::size_t SearchResultParserInterface::pendingBytes() const
{
    return content.size() + highlight.size() + scalarText.size() + jsonCtx->heldBytes();
}

bool SearchResultParserInterface::finish(std::string *message)
{
    if (jsonCtx->objectDepth() == 0 && jsonCtx->arrayDepth() == 0 && hitTag == 0 &&
        nextIs == NextString::Nothing && !errorFlag)
        return true;
    if (message != nullptr) {
        *message = "Finish error : { => " + std::to_string(jsonCtx->objectDepth()) + ", [ => " +
                   std::to_string(jsonCtx->arrayDepth()) + ", hittag => " + std::to_string(hitTag) +
                   ", nextis => " + std::to_string(static_cast<int>(nextIs)) + ", error => " +
                   (errorFlag ? "1" : "0");
    }
    return false;
}

inline void SearchResultParserInterface::onByte(char byte)
{
    if (capturesScalar())
        takeScalarByte(byte);
    if (statusCapture.isActive())
        statusCapture.takeByte(byte);
}

// A total and a score end at the next comma or brace, wherever it stands: a total that is an object yields
// what its first member holds.
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
    if (hitTag == InsideHits) {
        // Two totals that count something: we cannot tell which of them is the response's own.
        errorFlag = errorFlag || totalHitCount != 0;
        totalHits = std::strtol(scalarText.c_str(), nullptr, 10);
        totalHitCount = static_cast<int>(totalHits);
    } else if (hitTag == InsideHitArray) {
        score = scalarText;
    } else {
        errorFlag = true;
    }
}

inline void SearchResultParserInterface::onArrayClosed()
{
    if (hitTag == InsideHitArray) {
        hitTag = InsideHits;
        hitsEnded = true;
    }
}

inline void SearchResultParserInterface::onObjectOpened(const char *brace, int depth)
{
    if (depth != SourceDepth)
        return;
    // The name that started the capture and its colon were copied too; the object itself starts here.
    if (std::string *const target = copyTarget()) {
        target->clear();
        copyFrom = brace;
    }
}

inline void SearchResultParserInterface::onObjectClosed(const char *brace, int depth)
{
    if (depth == ResponseDepth && hitTag == InsideHits) {
        hitTag = 0;
    } else if (depth == HitDepth && copyTarget() != nullptr) {
        copyUpTo(brace + 1);
        if (inSource)
            inSource = false;
        else
            inHighlight = false;
        copyFrom = brace; // a highlight that waited for the source to end takes the brace as well
    } else if (depth == HitsDepth && hitTag == InsideHitArray && jsonCtx->arrayDepth() == 1) {
        copyUpTo(brace);
        onNewDocument(docId, content, score, highlight, docType);
    }
}

inline void SearchResultParserInterface::onString(std::string_view text, const char *quote, int depth)
{
    if (depth == SourceDepth) {
        takeInnerString(text);
    } else if (depth == HitDepth) {
        if (jsonCtx->arrayDepth() == 1 && hitTag == InsideHitArray)
            takeHitString(text, quote);
        else if (jsonCtx->arrayDepth() == 0 && hitTag == InsideHits && is(text, "gte"))
            totalIsLowerBound = true; // the "relation" of a total that is an object
    } else if (depth < HitDepth) {
        takeOuterString(text, quote, depth);
    }
}

void SearchResultParserInterface::takeOuterString(std::string_view text, const char *quote, int depth)
{
    const bool outsideArrays = jsonCtx->arrayDepth() == 0;
    if (outsideArrays && hitTag == 0)
        statusCapture.onString(text, depth);
    if (nextIs == NextString::ScrollId) {
        scrollId = text;
        nextIs = NextString::Nothing;
    } else if (is(text, "hits")) {
        ++hitTag;
    } else if (depth == HitsDepth && outsideArrays && hitTag == InsideHits && is(text, "total")) {
        inScalar = true;
    } else if (depth == ResponseDepth && outsideArrays) {
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
    if (inSource)
        return &content;
    return inHighlight ? &highlight : nullptr;
}

// Brings the bytes before `end` to where they are being copied, if anywhere.
inline void SearchResultParserInterface::copyUpTo(const char *end)
{
    if (std::string *const target = copyTarget())
        target->append(copyFrom, static_cast<std::size_t>(end - copyFrom));
    copyFrom = end;
}

} // namespace zq::elasticsearch
