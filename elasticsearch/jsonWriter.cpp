// Writing JSON.
#include "elasticsearch/jsonWriter.h"

#include <cstdint>
#include <cstdio>
#include <utf8.h>

namespace zq::elasticsearch
{
namespace
{

// The letter that follows the backslash in the short escape of a character, or 0.
char shortEscape(uint32_t codePoint)
{
    switch (codePoint) {
    case '\b':
        return 'b';
    case '\t':
        return 't';
    case '\n':
        return 'n';
    case '\f':
        return 'f';
    case '\r':
        return 'r';
    case '"':
    case '\\':
        return static_cast<char>(codePoint);
    default:
        return 0;
    }
}

void appendEscape(uint32_t codePoint, std::string &out)
{
    if (const char letter = shortEscape(codePoint)) {
        out += '\\';
        out += letter;
        return;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(codePoint));
    out += escape;
}

bool needsEscape(uint32_t codePoint)
{
    return codePoint < 32 || codePoint == '"' || codePoint == '\\' || (codePoint >= 127 && codePoint <= 159);
}

} // namespace

bool Utf8ToJson(const char *begin, const char *end, std::string &out)
{
    const char *copied = begin; // what lies before is in `out`
    const char *position = begin;
    try {
        while (position != end) {
            const char *character = position;
            const uint32_t codePoint = utf8::next(position, end);
            if (!needsEscape(codePoint))
                continue;
            out.append(copied, character);
            appendEscape(codePoint, out);
            copied = position;
        }
        out.append(copied, end);
        return true;
    } catch (...) {
        return false;
    }
}

bool appendJsonString(std::string &out, std::string_view utf8)
{
    out += '"';
    const bool isValid = Utf8ToJson(utf8.data(), utf8.data() + utf8.size(), out);
    out += '"';
    return isValid;
}

} // namespace zq::elasticsearch
