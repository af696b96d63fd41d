// A reader of terms aggregations for tests: it takes one byte after the other through every rule in turn. It
// judges the fast one, and shares nothing with it.
#pragma once

#include "referenceLexer.h"

#include <cstddef>
#include <string>

class ReferenceTermAggReader
{
public:
    explicit ReferenceTermAggReader(bool collectValues_) : collectValues(collectValues_) {}
    virtual ~ReferenceTermAggReader() = default;
    virtual void onAttributes(const std::string &name, int count, const std::string &values) = 0;

    bool addData(const char *data, std::size_t length)
    {
        for (std::size_t i = 0; i < length && !errorFlag; ++i) {
            lexer.step(data[i]);
            switch (lexer.objectDepth) {
            case 1:
                atDepth1();
                break;
            case 2:
                atDepth2();
                break;
            case 3:
                atDepth3();
                break;
            case 4:
                atDepth4();
                break;
            case 5:
                atDepth5();
                break;
            }
        }
        return !errorFlag;
    }

    bool finish() { return lexer.objectDepth != 0 || lexer.arrayDepth != 0 ? false : !errorFlag; }

    const std::string &getErrorMessage() const { return errorMessage; }

private:
    void atDepth1()
    {
        if (lexer.prevObjectDepth == 2 || lexer.stringClosed) {
            inAggregations = false;
        }
        if (lexer.stringClosed && lexer.arrayDepth == 0) {
            if (lexer.stringText == "aggregations") {
                inAggregations = true;
            } else if (lexer.stringText == "error") {
                errorKeySeen = true;
            } else if (errorKeySeen) {
                errorKeySeen = false;
                errorMessage = lexer.stringText;
                errorFlag = true;
            }
        }
    }

    void atDepth2()
    {
        if (lexer.prevObjectDepth == 3 || lexer.stringClosed) {
            inRootAgg = false;
        }
        if (lexer.stringClosed && lexer.arrayDepth == 0 && lexer.stringText == "rootagg" && inAggregations) {
            inRootAgg = true;
        }
    }

    void atDepth3()
    {
        if (lexer.prevObjectDepth == 4 || lexer.stringClosed) {
            if (bucketOwner != "") {
                onAttributes(bucketOwner, valueCount, (valueList == "" ? "[" : valueList) + "]");
            }
            valueList = bucketOwner = "";
            valueCount = 0;
            if (lexer.arrayDepth == 0 && lexer.stringClosed && inRootAgg && lexer.stringText != "doc_count") {
                bucketOwner = lexer.stringText;
            }
        }
    }

    void atDepth4()
    {
        if (lexer.stringClosed && lexer.arrayDepth == 0 && bucketOwner != "" &&
            lexer.stringText == "buckets") {
            inBuckets = true;
        }
        if (expectKeyValue) {
            errorFlag = true;
            errorMessage = "Parsing error, fail to retrieve field value";
        }
    }

    void atDepth5()
    {
        if (lexer.arrayDepth == 1 && inBuckets) {
            if (expectKeyValue && lexer.valueClosed) {
                expectKeyValue = false;
                if (collectValues) {
                    valueList += (valueList == "" ? "[" : ",") + lexer.valueText;
                }
                valueCount += 1;
            } else if (!expectKeyValue && lexer.stringClosed) {
                expectKeyValue = lexer.stringText == "key";
            }
        }
    }

    ReferenceLexer lexer;
    std::string errorMessage, bucketOwner, valueList;
    int valueCount = 0;
    bool errorFlag = false;
    bool errorKeySeen = false;
    bool inAggregations = false;
    bool inRootAgg = false;
    bool inBuckets = false;
    bool expectKeyValue = false;
    const bool collectValues;
};
