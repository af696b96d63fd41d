// Streaming reader of Elasticsearch search and scroll responses.
#include "searchResultParserInterface.h"

#include "jsonString.h"

#include <cstdlib>

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
    const char *at = data;
    const char *const end = data + length;
    jsonCtx->beginChunk(data);
    copyFrom = data;
    while (at != end && !mustStop()) {
        if (capturesScalar()) {
            takeScalarByte(*at);
        } else {
            at = jsonCtx->skipPlain(at, end);
            if (at == end) {
                break;
            }
        }
        jsonCtx->step(at);
        takeEvent(at);
        ++at;
    }
    copyUpTo(at);
    jsonCtx->endChunk(at, nextIs == NextString::Nothing ? longestName + 1 : std::string::npos);
    return !errorFlag;
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

/// A total and a score end at the next comma or brace, wherever it stands: a total that is an object yields
/// what its first member holds.
void SearchResultParserInterface::takeScalarByte(char byte)
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
        totalHitCount = static_cast<int>(std::strtol(scalarText.c_str(), nullptr, 10));
    } else if (hitTag == insideHitArray) {
        score = scalarText;
    } else {
        errorFlag = true;
    }
}

/// Acts on what the lexer made of the byte it just stepped over; no byte does more than one of these things.
void SearchResultParserInterface::takeEvent(const char *at)
{
    if (jsonCtx->stringClosed) {
        if (jsonCtx->objectDepth <= sourceDepth) {
            onStringClosed(at);
        }
    } else if (jsonCtx->objectDepth > jsonCtx->prevObjectDepth) {
        onObjectOpened(at);
    } else if (jsonCtx->objectDepth < jsonCtx->prevObjectDepth) {
        onObjectClosed(at);
    } else if (jsonCtx->arrayDepth < jsonCtx->prevArrayDepth && jsonCtx->arrayDepth == 0 &&
               hitTag == insideHitArray) {
        hitTag = insideHits;
        hitsEnded = true;
    }
}

void SearchResultParserInterface::onObjectOpened(const char *brace)
{
    // The name that started the capture and its colon were copied too; the object itself starts here.
    if (jsonCtx->objectDepth == sourceDepth) {
        if (std::string *const target = copyTarget()) {
            target->clear();
            copyFrom = brace;
        }
    }
}

void SearchResultParserInterface::onObjectClosed(const char *brace)
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

void SearchResultParserInterface::onStringClosed(const char *quote)
{
    const std::string_view text = jsonCtx->stringText.whole();
    if (jsonCtx->objectDepth == sourceDepth) {
        takeInnerString(text);
    } else if (jsonCtx->objectDepth == hitDepth) {
        if (jsonCtx->arrayDepth == 1 && hitTag == insideHitArray) {
            takeHitString(text, quote);
        }
    } else {
        takeOuterString(text, quote);
    }
}

void SearchResultParserInterface::takeOuterString(std::string_view text, const char *quote)
{
    const bool outsideArrays = jsonCtx->arrayDepth == 0;
    if (nextIs == NextString::ScrollId) {
        scrollId = text;
        nextIs = NextString::Nothing;
    } else if (text == "hits") {
        ++hitTag;
    } else if (jsonCtx->objectDepth == hitsDepth && outsideArrays && hitTag == insideHits &&
               text == "total") {
        inScalar = true;
    } else if (jsonCtx->objectDepth == responseDepth && outsideArrays) {
        if (text == "_scroll_id") {
            nextIs = NextString::ScrollId;
        } else if (text == "error") {
            copyUpTo(quote);
            errorFlag = true;
            inSource = true;
        }
    }
}

void SearchResultParserInterface::takeHitString(std::string_view text, const char *quote)
{
    copyUpTo(quote); // what follows may go somewhere else
    if (nextIs == NextString::DocId) {
        nextIs = NextString::Nothing;
        decodeDocId(text);
    } else if (text == "_source") {
        inSource = true;
    } else if (text == "_id") {
        nextIs = NextString::DocId;
    } else if (text == "_score") {
        inScalar = true;
    } else if (text == "highlight") {
        inHighlight = true;
    }
}

void SearchResultParserInterface::takeInnerString(std::string_view text)
{
    if (nextIs == NextString::DocType) {
        docType = text;
        nextIs = NextString::Nothing;
    } else if (text == "type") {
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

std::string *SearchResultParserInterface::copyTarget()
{
    if (inSource) {
        return &content;
    }
    return inHighlight ? &highlight : nullptr;
}

/// Brings the bytes before `end` to where they are being copied, if anywhere.
void SearchResultParserInterface::copyUpTo(const char *end)
{
    if (std::string *const target = copyTarget()) {
        target->append(copyFrom, end);
    }
    copyFrom = end;
}

} // namespace zq::elasticsearch
