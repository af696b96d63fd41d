// A lexer for tests: one byte at a time, and nothing but its own strings to remember. It judges the fast one.
#pragma once

#include <string>

struct ReferenceLexer {
    int arrayDepth = 0, objectDepth = 0;
    int prevArrayDepth = 0, prevObjectDepth = 0; // before the last byte
    bool stringClosed = false, valueClosed = false;
    bool inString = false, inValue = false, escapePending = false;
    std::string stringText, valueText;

    void step(char c)
    {
        prevArrayDepth = arrayDepth;
        prevObjectDepth = objectDepth;
        stringClosed = valueClosed = false;
        const bool isQuote = c == '"' && !escapePending;
        escapePending = c == '\\' && !escapePending;
        if (!isQuote && !inString) {
            takeOutsideString(c);
            return;
        }
        valueText += inValue ? std::string(1, c) : "";
        if (!isQuote) {
            stringText += c;
            return;
        }
        stringText = inString ? stringText : "";
        stringClosed = inString;
        inString = !inString;
    }

private:
    void takeOutsideString(char c)
    {
        arrayDepth += (c == '[') - (c == ']');
        objectDepth += (c == '{') - (c == '}');
        if (c == '[' || c == ']' || c == '{' || c == ':') {
            inValue = c == ':';
            valueText.clear();
        } else if (c == ',' || c == '}') {
            valueClosed = inValue;
            inValue = false;
        } else if (inValue) {
            valueText += c;
        }
    }
};
