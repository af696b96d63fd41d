// A reader of search responses for tests: it takes one byte after the other through every rule in turn, with
// no care for speed. It judges the fast one, and shares nothing with it but the record of the status.
#pragma once

#include "referenceJsonString.h"
#include "referenceLexer.h"
#include "elasticsearch/searchResponseStatus.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

class ReferenceSearchReader
{
public:
    virtual ~ReferenceSearchReader() = default;
    virtual void onNewDocument(const std::string &id, const std::string &source, const std::string &scoreText,
                               const std::string &highlights, const std::string &type) = 0;

    bool addData(const char *data, std::size_t length)
    {
        for (std::size_t i = 0; i < length && (!errorFlag || inSource); ++i)
            takeByte(data[i]);
        return !errorFlag;
    }

    bool finish(std::string *message) const
    {
        const std::string state = "Finish error : { => " + std::to_string(lexer.objectDepth) + ", [ => " +
                                  std::to_string(lexer.arrayDepth) + ", hittag => " + std::to_string(hitTag) +
                                  ", nextis => " + std::to_string(nextIs) + ", error => " +
                                  std::to_string(errorFlag);
        if (state == "Finish error : { => 0, [ => 0, hittag => 0, nextis => 0, error => 0")
            return true;
        *message = state;
        return false;
    }

    int getTotalHitCount() const { return static_cast<int>(totalHits); }
    std::int64_t getTotalHits() const { return totalHits; }
    bool isTotalLowerBound() const { return totalIsLowerBound; }
    const std::string &getScrollId() const { return scrollId; }
    const std::string &getErrorMessage() const { return content; }
    const zq::elasticsearch::SearchResponseStatus &getStatus() const { return status; }
    bool hasHits() const { return hitsEnded; }
    // What has to be held however the chunks are cut.
    std::size_t heldBytes() const { return content.size() + highlight.size() + scalarText.size(); }

private:
    bool copies() const { return inSource || inHighlight; }
    std::string &copy() { return inSource ? content : highlight; }

    void takeByte(char c)
    {
        lexer.step(c);
        if (inScalar && !copies())
            captureScalar(c);
        captureStatus(c);
        if (lexer.objectDepth < lexer.prevObjectDepth)
            objectClosed();
        else if (lexer.objectDepth > lexer.prevObjectDepth && lexer.objectDepth == 4 && copies())
            copy().clear();
        if (lexer.arrayDepth < lexer.prevArrayDepth && lexer.arrayDepth == 0 && hitTag == 2) {
            hitTag = 1;
            hitsEnded = true;
        }
        if (lexer.stringClosed)
            takeString(lexer.stringText);
        if (copies())
            copy() += c;
    }

    void captureScalar(char c)
    {
        if (c == ':') {
            scalarText.clear();
        } else if (c != ',' && c != '}') {
            scalarText += c;
        } else {
            inScalar = false;
            errorFlag = errorFlag || hitTag < 1 || hitTag > 2 || (hitTag == 1 && getTotalHitCount() != 0);
            if (hitTag == 1)
                totalHits = std::strtol(scalarText.c_str(), nullptr, 10);
            else if (hitTag == 2)
                score = scalarText;
        }
    }

    void captureStatus(char c)
    {
        if (statusName.empty() || c == ' ' || c == '\t' || c == '\r' || c == '\n')
            return;
        statusText += c;
        const bool ends = c == ',' || c == '}', isMember = statusText.front() == ':';
        if (ends && isMember) {
            const std::string value = statusText.substr(1, statusText.size() - 2);
            const long number = std::strtol(value.c_str(), nullptr, 10);
            if (statusName == "timed_out") {
                status.timedOut = value == "true";
            } else {
                (statusName == "total"        ? status.totalShards
                 : statusName == "successful" ? status.successfulShards
                                              : status.failedShards) = number;
            }
        }
        if (ends || !isMember || c == '"' || c == '{' || c == '[' || statusText.size() > 19)
            statusName.clear();
    }

    void nameStatus(const std::string &text)
    {
        const bool inShards = lexer.objectDepth == 2 && outerName == "_shards";
        if ((lexer.objectDepth == 1 && text == "timed_out") ||
            (inShards && (text == "total" || text == "successful" || text == "failed"))) {
            statusName = text;
            statusText.clear();
        }
        outerName = lexer.objectDepth == 1 ? text : outerName;
    }

    void objectClosed()
    {
        if (hitTag == 1 && lexer.objectDepth == 1)
            hitTag = 0;
        if (lexer.objectDepth == 3 && copies()) {
            copy() += '}';
            inHighlight = inSource && inHighlight;
            inSource = false;
        }
        if (lexer.objectDepth == 2 && hitTag == 2 && lexer.arrayDepth == 1)
            onNewDocument(docId, content, score, highlight, docType);
    }

    void takeString(const std::string &text)
    {
        if (lexer.arrayDepth == 0 && hitTag == 0)
            nameStatus(text);
        if (lexer.objectDepth <= 2) {
            takeOuterString(text, lexer.arrayDepth == 0 ? lexer.objectDepth : 0);
        } else if (lexer.objectDepth == 3 && lexer.arrayDepth == 0 && hitTag == 1 && text == "gte") {
            totalIsLowerBound = true;
        } else if (lexer.objectDepth == 3 && lexer.arrayDepth == 1 && hitTag == 2) {
            takeHitString(text);
        } else if (lexer.objectDepth == 4 && nextIs == 3) {
            docType = text;
            nextIs = 0;
        } else if (lexer.objectDepth == 4 && text == "type") {
            nextIs = 3;
            docType.clear();
        }
    }

    void takeOuterString(const std::string &text, int depthOutsideArrays)
    {
        if (nextIs == 2) {
            scrollId = text;
            nextIs = 0;
        } else if (text == "hits") {
            hitTag += 1;
        } else if (depthOutsideArrays == 2 && hitTag == 1 && text == "total") {
            inScalar = true;
        } else if (depthOutsideArrays == 1 && text == "_scroll_id") {
            nextIs = 2;
        } else if (depthOutsideArrays == 1 && text == "error") {
            errorFlag = inSource = true;
        }
    }

    void takeHitString(const std::string &text)
    {
        if (nextIs == 1) {
            nextIs = 0;
            docId = decodeSimply(text).value_or("");
            if (!decodeSimply(text)) {
                content = "json to utf8 conversion error";
                errorFlag = true;
            }
            return;
        }
        nextIs = text == "_id" ? 1 : nextIs;
        inSource = inSource || text == "_source";
        inScalar = inScalar || text == "_score";
        inHighlight = inHighlight || text == "highlight";
    }

    ReferenceLexer lexer;
    zq::elasticsearch::SearchResponseStatus status;
    std::string statusName, statusText, outerName;
    std::string scalarText, content, highlight, docId, docType, score, scrollId;
    std::int64_t totalHits = 0;
    int hitTag = 0; // how many "hits" we are inside of
    int nextIs = 0; // what the next string is: 1 an id, 2 the scroll id, 3 a type
    bool errorFlag = false, inSource = false, inHighlight = false, inScalar = false;
    bool totalIsLowerBound = false, hitsEnded = false;
};
