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
            const bool ended = lexer.stringClosed || lexer.objectDepth < lexer.prevObjectDepth;
            takeOutside(lexer.objectDepth, lexer.stringClosed && lexer.arrayDepth == 0, ended);
            takeInside(lexer.objectDepth);
        }
        return !errorFlag;
    }

    bool finish() const { return lexer.objectDepth == 0 && lexer.arrayDepth == 0 && !errorFlag; }
    const std::string &getErrorMessage() const { return errorMessage; }

private:
    void takeOutside(int depth, bool isName, bool ended)
    {
        const std::string &text = lexer.stringText;
        if (depth == 1 && ended) {
            inAggregations = isName && text == "aggregations";
            if (isName && errorKeySeen && !inAggregations && text != "error")
                fail(text);
            errorKeySeen = errorKeySeen || (isName && text == "error");
        } else if (depth == 2 && ended) {
            inRootAgg = isName && inAggregations && text == "rootagg";
        } else if (depth == 3 && ended) {
            if (owner != "")
                onAttributes(owner, count, (values == "" ? "[" : values) + "]");
            values = "";
            count = 0;
            owner = isName && inRootAgg && text != "doc_count" ? text : "";
        }
    }

    void takeInside(int depth)
    {
        if (depth == 4) {
            const bool isName = lexer.stringClosed && lexer.arrayDepth == 0;
            inBuckets = inBuckets || (isName && owner != "" && lexer.stringText == "buckets");
            if (keyIsNext)
                fail("Parsing error, fail to retrieve field value");
        } else if (depth == 5 && lexer.arrayDepth == 1 && inBuckets) {
            if (keyIsNext && lexer.valueClosed) {
                keyIsNext = false;
                values += collectValues ? (values == "" ? "[" : ",") + lexer.valueText : "";
                count += 1;
            } else if (!keyIsNext && lexer.stringClosed) {
                keyIsNext = lexer.stringText == "key";
            }
        }
    }

    void fail(const std::string &message)
    {
        errorFlag = true;
        errorMessage = message;
    }

    ReferenceLexer lexer;
    std::string errorMessage, owner, values;
    int count = 0;
    bool errorFlag = false, errorKeySeen = false, inAggregations = false, inRootAgg = false;
    bool inBuckets = false, keyIsNext = false;
    const bool collectValues;
};
