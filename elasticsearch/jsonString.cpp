// Decoding of one JSON string.
#include "elasticsearch/jsonString.h"

#include <utf8.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace zq::elasticsearch
{

namespace
{

constexpr std::size_t HexDigits = 4;

int hexValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

// Takes the four digits at the start of `rest` and appends the code point they name.
bool appendCodePoint(std::string_view &rest, std::string &decoded)
{
    if (rest.size() < HexDigits)
        return false;
    std::uint32_t codePoint = 0;
    for (const char digit : rest.substr(0, HexDigits)) {
        const int value = hexValue(digit);
        if (value < 0)
            return false;
        codePoint = codePoint * 16 + static_cast<std::uint32_t>(value);
    }
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (isSurrogate)
        return false;
    utf8::append(codePoint, std::back_inserter(decoded));
    rest.remove_prefix(HexDigits);
    return true;
}

// Takes the escape, without its backslash, at the start of `rest` and appends what it stands for.
bool appendEscape(std::string_view &rest, std::string &decoded)
{
    constexpr std::string_view Letters = "\"/\\bfnrt";
    constexpr std::string_view Meanings = "\"/\\\b\f\n\r\t";
    if (rest.empty())
        return false;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (letter == 'u')
        return appendCodePoint(rest, decoded);
    const std::size_t index = Letters.find(letter);
    if (index == std::string_view::npos)
        return false;
    decoded.push_back(Meanings[index]);
    return true;
}

// Whether the text is all ASCII without a backslash, eight bytes at a time.
bool isPlainAscii(std::string_view text)
{
    constexpr std::uint64_t Each = 0x0101010101010101;
    constexpr std::uint64_t HighBits = Each * 0x80;
    std::uint64_t found = 0;
    while (!text.empty()) {
        std::uint64_t bytes = 0;
        const std::size_t length = std::min(text.size(), sizeof bytes);
        std::memcpy(&bytes, text.data(), length);
        // Of a byte that is a backslash only zero is left, and subtracting one sets its high bit.
        found |= bytes | ((bytes ^ Each * '\\') - Each);
        text.remove_prefix(length);
    }
    return (found & HighBits) == 0;
}

bool appendDecoded(std::string_view rest, std::string &decoded)
{
    while (!rest.empty()) {
        // No byte of a multi-byte sequence looks like a backslash, so the spans can be judged one by one.
        const std::string_view plain = rest.substr(0, rest.find('\\'));
        if (!utf8::is_valid(plain.begin(), plain.end()))
            return false;
        decoded.append(plain);
        rest.remove_prefix(plain.size());
        if (!rest.empty()) {
            rest.remove_prefix(1);
            if (!appendEscape(rest, decoded))
                return false;
        }
    }
    return true;
}

} // namespace

bool decodeJsonString(std::string_view raw, std::string &decoded)
{
    if (isPlainAscii(raw)) { // as nearly every id is
        decoded = raw;
        return true;
    }
    decoded.clear();
    if (!appendDecoded(raw, decoded)) {
        decoded.clear();
        return false;
    }
    return true;
}

} // namespace zq::elasticsearch
