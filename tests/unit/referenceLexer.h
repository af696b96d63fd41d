// A lexer for tests: one byte at a time, and nothing but its own strings to remember. It judges the fast one.
#pragma once

#include <string>

struct ReferenceLexer {
    int prevArrayDepth = 0;
    int arrayDepth = 0;
    int prevObjectDepth = 0;
    int objectDepth = 0;
    bool stringClosed = false;
    bool valueClosed = false;
    bool escapePending = false;
    bool inString = false;
    bool inValue = false;
    std::string stringText;
    std::string valueText;

    void step(char c)
    {
        prevArrayDepth = arrayDepth;
        prevObjectDepth = objectDepth;
        stringClosed = false;
        valueClosed = false;
        const bool isQuote = c == '"' && !escapePending;
        escapePending = c == '\\' && !escapePending;
        if (isQuote && inString) {
            inString = false;
            stringClosed = true;
        } else if (isQuote) {
            inString = true;
            stringText.clear();
        } else if (inString) {
            stringText += c;
        } else {
            takeOutsideString(c);
            return;
        }
        if (inValue) {
            valueText += c;
        }
    }

private:
    void takeOutsideString(char c)
    {
        arrayDepth += c == '[' ? 1 : c == ']' ? -1 : 0;
        objectDepth += c == '{' ? 1 : c == '}' ? -1 : 0;
        if (c == '[' || c == ']' || c == '{') {
            inValue = false;
            valueText.clear();
        } else if (c == ':') {
            inValue = true;
            valueText.clear();
        } else if ((c == ',' || c == '}') && inValue) {
            inValue = false;
            valueClosed = true;
        } else if (inValue) {
            valueText += c;
        }
    }
};
