// A reader of search responses for tests: it takes one byte after the other through every rule in turn, with
// no care for speed. It judges the fast one, and shares nothing with it.
#pragma once

#include "referenceLexer.h"

#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

class ReferenceSearchReader
{
public:
    virtual ~ReferenceSearchReader() = default;
    virtual void onNewDocument(const std::string &id, const std::string &source, const std::string &scoreText,
                               const std::string &highlights, const std::string &type) = 0;

    bool addData(const char *data, std::size_t length)
    {
        for (std::size_t i = 0; i < length; ++i) {
            if (errorFlag && !inSource) {
                return false;
            }
            takeByte(data[i]);
        }
        return !errorFlag;
    }

    bool finish(std::string *message)
    {
        if (lexer.objectDepth == 0 && lexer.arrayDepth == 0 && hitTag == 0 && nextIs == 0 && !errorFlag) {
            return true;
        }
        if (message) {
            std::ostringstream text;
            text << "Finish error : { => " << lexer.objectDepth << ", [ => " << lexer.arrayDepth
                 << ", hittag => " << hitTag << ", nextis => " << nextIs << ", error => " << errorFlag;
            *message = text.str();
        }
        return false;
    }

    int getTotalHitCount() const { return totalHitCount; }
    std::int64_t getTotalHits() const { return totalHits; }
    bool isTotalLowerBound() const { return totalIsLowerBound; }
    const std::string &getScrollId() const { return scrollId; }
    const std::string &getErrorMessage() const { return content; }
    /// "timed_out", and "total", "successful" and "failed" of "_shards", where they have a value.
    const std::map<std::string, std::string> &getStatus() const { return status; }

private:
    void takeByte(char c)
    {
        lexer.step(c);
        if (inScalar && !inSource && !inHighlight) {
            captureScalar(c);
        }
        captureStatus(c);
        if (lexer.objectDepth < lexer.prevObjectDepth) {
            objectClosed();
        } else if (lexer.objectDepth > lexer.prevObjectDepth && lexer.objectDepth == 4) {
            (inSource ? content : inHighlight ? highlight : nowhere).clear();
        }
        if (lexer.arrayDepth < lexer.prevArrayDepth && lexer.arrayDepth == 0 && hitTag == 2) {
            hitTag = 1;
        }
        if (lexer.objectDepth <= 4 && lexer.stringClosed) {
            takeString(lexer.stringText);
        }
        if (inSource) {
            content += c;
        } else if (inHighlight) {
            highlight += c;
        }
    }

    void captureScalar(char c)
    {
        if (c == ':') {
            scalarText.clear();
        } else if (c == ',' || c == '}') {
            if (hitTag == 1) {
                if (totalHitCount != 0) {
                    errorFlag = true;
                }
                totalHits = std::strtol(scalarText.c_str(), nullptr, 10);
                totalHitCount = static_cast<int>(totalHits);
            } else if (hitTag == 2) {
                score = scalarText;
            } else {
                errorFlag = true;
            }
            inScalar = false;
        } else {
            scalarText += c;
        }
    }

    void captureStatus(char c)
    {
        const bool isBlank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (statusName.empty() || isBlank) {
            return;
        }
        statusText += c;
        const bool ends = c == ',' || c == '}';
        if (ends && statusText.size() > 1 && statusText.front() == ':') {
            status[statusName] = statusText.substr(1, statusText.size() - 2);
        }
        if (ends || statusText.front() != ':' || c == '"' || c == '{' || c == '[' || statusText.size() > 19) {
            statusName.clear();
        }
    }

    void nameStatus(const std::string &text)
    {
        if (lexer.arrayDepth != 0 || hitTag != 0) {
            return;
        }
        const bool inShards = lexer.objectDepth == 2 && outerName == "_shards";
        if ((lexer.objectDepth == 1 && text == "timed_out") ||
            (inShards && (text == "total" || text == "successful" || text == "failed"))) {
            statusName = text;
            statusText.clear();
        }
        if (lexer.objectDepth == 1) {
            outerName = text;
        }
    }

    void objectClosed()
    {
        if (hitTag == 1 && lexer.objectDepth == 1) {
            hitTag = 0;
        }
        if (inSource && lexer.objectDepth == 3) {
            content += '}';
            inSource = false;
        } else if (inHighlight && lexer.objectDepth == 3) {
            highlight += '}';
            inHighlight = false;
        }
        if (lexer.objectDepth == 2 && hitTag == 2 && lexer.arrayDepth == 1) {
            onNewDocument(docId, content, score, highlight, docType);
        }
    }

    void takeString(const std::string &text)
    {
        nameStatus(text);
        if (lexer.objectDepth <= 2) {
            if (nextIs == 2) {
                scrollId = text;
                nextIs = 0;
            } else if (text == "hits") {
                hitTag += 1;
            } else if (lexer.objectDepth == 2 && lexer.arrayDepth == 0 && hitTag == 1 && text == "total") {
                inScalar = true;
            } else if (lexer.objectDepth == 1 && lexer.arrayDepth == 0 && text == "_scroll_id") {
                nextIs = 2;
            } else if (lexer.objectDepth == 1 && lexer.arrayDepth == 0 && text == "error") {
                errorFlag = true;
                inSource = true;
            }
        } else if (lexer.objectDepth == 3) {
            if (lexer.arrayDepth == 0 && hitTag == 1 && text == "gte") {
                totalIsLowerBound = true;
            }
            if (lexer.arrayDepth != 1 || hitTag != 2) {
                return;
            }
            if (nextIs == 1) {
                nextIs = 0;
                decodeId(text);
            } else if (text == "_source") {
                inSource = true;
            } else if (text == "_id") {
                nextIs = 1;
            } else if (text == "_score") {
                inScalar = true;
            } else if (text == "highlight") {
                inHighlight = true;
            }
        } else if (nextIs == 3) {
            docType = text;
            nextIs = 0;
        } else if (text == "type") {
            nextIs = 3;
            docType.clear();
        }
    }

    void decodeId(const std::string &text)
    {
        docId.clear();
        try {
            auto at = text.begin();
            while (at != text.end()) {
                const auto codePoint = static_cast<std::uint32_t>(utf8::next(at, text.end()));
                utf8::append(codePoint == '\\' ? decodeEscape(at, text.end()) : codePoint,
                             std::back_inserter(docId));
            }
        } catch (const std::exception &) {
            docId.clear();
            content = "json to utf8 conversion error";
            errorFlag = true;
        }
    }

    static std::uint32_t decodeEscape(std::string::const_iterator &at, std::string::const_iterator end)
    {
        switch (static_cast<std::uint32_t>(utf8::next(at, end))) {
        case '"':
            return '"';
        case '/':
            return '/';
        case '\\':
            return '\\';
        case 'b':
            return 8;
        case 'f':
            return 12;
        case 'n':
            return 10;
        case 'r':
            return 13;
        case 't':
            return 9;
        case 'u':
            break;
        default:
            throw std::runtime_error("unknown escape");
        }
        std::uint32_t codePoint = 0;
        for (int digit = 0; digit < 4; ++digit) {
            const auto position =
                std::string("0123456789abcdef0123456789ABCDEF").find(at == end ? '?' : *at++);
            if (position == std::string::npos) {
                throw std::runtime_error("not a hex digit");
            }
            codePoint = codePoint * 16 + position % 16;
        }
        return codePoint;
    }

    ReferenceLexer lexer;
    std::map<std::string, std::string> status;
    std::string statusName, statusText, outerName;
    std::string scalarText, content, highlight, docId, docType, score, scrollId, nowhere;
    std::int64_t totalHits = 0;
    int totalHitCount = 0;
    bool totalIsLowerBound = false;
    int hitTag = 0;
    int nextIs = 0;
    bool errorFlag = false;
    bool inSource = false;
    bool inHighlight = false;
    bool inScalar = false;
};
