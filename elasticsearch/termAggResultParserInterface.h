// Streaming reader of Elasticsearch responses that carry terms aggregations.
#pragma once

#include "elasticsearch/veltraneExport.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

struct BlockScanner;
class JsonParseCtx;

// Reads one response while it arrives, and hands each terms aggregation below the aggregation "rootagg" to
// onAttributes: how many buckets it has and, on demand, their keys. Like the search reader it counts
// brackets, tracks strings and knows a few names at fixed depths; everything else is skipped unjudged, and a
// string is taken for a name wherever it stands.
// // Call addData in stream order, then finish. The constructor throws std::bad_alloc, nothing else throws
// but what onAttributes throws; after that the reader must not be fed again. No frame between addData and
// onAttributes has anything to destroy, so that onAttributes may leave by longjmp.
class VELTRANE_EXPORT TermAggResultParserInterface
{
public:
    // Without `collectValues` the keys are only counted.
    explicit TermAggResultParserInterface(bool collectValues);
    // With one way of scanning instead of the fastest.
    TermAggResultParserInterface(bool collectValues, const BlockScanner &scanner);
    virtual ~TermAggResultParserInterface();
    TermAggResultParserInterface(const TermAggResultParserInterface &) = delete;
    TermAggResultParserInterface &operator=(const TermAggResultParserInterface &) = delete;

    // Reads the next `length` bytes, which need to live only as long as the call. Returns false when the
    // response is an error or cannot be read; see getErrorMessage. A length of 0 only asks for the verdict.
    bool addData(const char *data, std::size_t length);

    // Returns whether the response came to its proper end and was no error.
    bool finish();

    // What is known about the failure, once addData has returned false; raw JSON text. For an error that is
    // an object it is the name of the response's next member: the object itself is skipped.
    const std::string &getErrorMessage() const { return errorMessage; }

    // Takes one aggregation: its name, the number of its buckets and, as the text of a JSON array, their
    // keys as they stood in the response, blanks included ("[]" when they are not collected). The strings
    // are valid only during the call. A key that is the last member of its bucket cannot be read: it fails.
    virtual void onAttributes(const std::string &name, int count, const std::string &values) = 0;

private:
    // The grammar that the lexer reads for; private to the reader's source.
    struct Grammar;

    bool isInBucket() const;
    void leaveObject(int depth);
    void takeString(std::string_view text, int depth);
    void takeResponseString(std::string_view text);
    void onNextFieldIsAttributeValue();
    void emitAttributes();
    void fail(std::string_view message);

    std::unique_ptr<JsonParseCtx> jsonCtx;
    std::string errorMessage;
    std::string_view attrValue; // the raw text of the member value that was just read
    std::string bucketOwner;    // name of the current aggregation; empty outside of all
    std::string valueList;      // its keys so far: a JSON array that still lacks its closing bracket
    int valueCount = 0;         // the number of its keys so far
    bool errorFlag = false;
    bool errorKeySeen = false; // the next string of the outermost object is the error text
    bool inAggregations = false;
    bool inRootAgg = false;
    bool inBuckets = false;      // a list of buckets was seen; stays set
    bool expectKeyValue = false; // the next value of the bucket is its key
    const bool collectValues;
};

} // namespace zq::elasticsearch
