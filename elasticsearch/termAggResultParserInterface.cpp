// Streaming reader of Elasticsearch responses that carry terms aggregations.
#include "elasticsearch/termAggResultParserInterface.h"

#include "elasticsearch/jsonParseCtx.h"

#include <climits>
#include <new>

namespace zq::elasticsearch
{

namespace
{

// Object depths, counted from the outermost brace of the response.
constexpr int ResponseDepth = 1;
constexpr int AggregationsDepth = 2;
constexpr int RootAggDepth = 3;
constexpr int SubAggDepth = 4;
constexpr int BucketDepth = 5;

} // namespace

// Every string, every bracket at its depth and every member value count.
struct TermAggResultParserInterface::Grammar {
    static constexpr bool WantsMemberValues = true;
    static constexpr int DeepestObject = INT_MAX;
    static constexpr std::size_t ShortString = 0;

    TermAggResultParserInterface &reader;

    bool mustStop() const { return reader.errorFlag; }
    static bool wantsBytes() { return false; }
    void onByte(char) {}
    static StringInterest stringInterest(int) { return StringInterest::All; }
    static std::size_t keptOfString() { return std::string::npos; }
    void onObjectOpened(const char *, int) {}
    void onObjectClosed(const char *, int depth) { reader.leaveObject(depth); }
    void onArrayClosed() {}
    void onString(std::string_view text, const char *, int depth) { reader.takeString(text, depth); }
    void onMemberValue(std::string_view text)
    {
        reader.attrValue = text;
        if (reader.isInBucket() && reader.expectKeyValue)
            reader.onNextFieldIsAttributeValue();
    }
};

TermAggResultParserInterface::TermAggResultParserInterface(bool collectValues_)
    : TermAggResultParserInterface(collectValues_, blockScanners().front())
{
}

TermAggResultParserInterface::TermAggResultParserInterface(bool collectValues_, const BlockScanner &scanner)
    : jsonCtx(std::make_unique<JsonParseCtx>(scanner)), collectValues(collectValues_)
{
    // Room for an ordinary list of keys.
    valueList.reserve(65536);
}

TermAggResultParserInterface::~TermAggResultParserInterface() = default;

bool TermAggResultParserInterface::addData(const char *data, std::size_t length)
{
    if (length == 0 || errorFlag)
        return !errorFlag;
    try {
        Grammar grammar{*this};
        jsonCtx->read(data, length, grammar);
    } catch (const std::bad_alloc &) {
        fail("out of memory"); // short enough to need none
    }
    return !errorFlag;
}

bool TermAggResultParserInterface::finish()
{
    return jsonCtx->objectDepth() == 0 && jsonCtx->arrayDepth() == 0 && !errorFlag;
}

inline bool TermAggResultParserInterface::isInBucket() const
{
    return jsonCtx->objectDepth() == BucketDepth && jsonCtx->arrayDepth() == 1 && inBuckets;
}

void TermAggResultParserInterface::leaveObject(int depth)
{
    switch (depth) {
    case ResponseDepth:
        inAggregations = false;
        break;
    case AggregationsDepth:
        inRootAgg = false;
        break;
    case RootAggDepth:
        emitAttributes();
        break;
    case SubAggDepth:
        if (expectKeyValue)
            fail("Parsing error, fail to retrieve field value");
        break;
    default:
        break;
    }
}

void TermAggResultParserInterface::takeString(std::string_view text, int depth)
{
    const bool outsideArrays = jsonCtx->arrayDepth() == 0;
    switch (depth) {
    case ResponseDepth:
        inAggregations = false;
        if (outsideArrays)
            takeResponseString(text);
        break;
    case AggregationsDepth:
        inRootAgg = outsideArrays && inAggregations && text == "rootagg";
        break;
    case RootAggDepth:
        emitAttributes();
        if (outsideArrays && inRootAgg && text != "doc_count")
            bucketOwner = text;
        break;
    case SubAggDepth:
        inBuckets = inBuckets || (outsideArrays && !bucketOwner.empty() && text == "buckets");
        if (expectKeyValue)
            fail("Parsing error, fail to retrieve field value");
        break;
    case BucketDepth:
        if (isInBucket() && !expectKeyValue)
            expectKeyValue = text == "key";
        break;
    default:
        break;
    }
}

void TermAggResultParserInterface::takeResponseString(std::string_view text)
{
    if (text == "aggregations")
        inAggregations = true;
    else if (text == "error")
        errorKeySeen = true;
    else if (errorKeySeen)
        fail(text);
}

void TermAggResultParserInterface::onNextFieldIsAttributeValue()
{
    expectKeyValue = false;
    if (collectValues) {
        valueList += valueList.empty() ? '[' : ',';
        valueList += attrValue;
    }
    ++valueCount;
}

// Hands over the aggregation that ends here, if one does.
void TermAggResultParserInterface::emitAttributes()
{
    if (!bucketOwner.empty()) {
        if (valueList.empty())
            valueList = "[";
        valueList += ']';
        onAttributes(bucketOwner, valueCount, valueList);
    }
    valueList.clear();
    bucketOwner.clear();
    valueCount = 0;
}

void TermAggResultParserInterface::fail(std::string_view message)
{
    errorFlag = true;
    errorMessage = message;
}

} // namespace zq::elasticsearch
