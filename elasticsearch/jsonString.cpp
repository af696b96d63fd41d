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

// What becomes of half a surrogate pair: is it looked for the other half?
enum class Pairs { Refused, Joined };

bool isHighSurrogate(std::uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Takes the four digits at the start of `rest`: a UTF-16 code unit. False when they are none.
bool takeUnit(std::string_view &rest, std::uint32_t &unit)
{
    if (rest.size() < HexDigits)
        return false;
    unit = 0;
    for (const char digit : rest.substr(0, HexDigits)) {
        const int value = hexValue(digit);
        if (value < 0)
            return false;
        unit = unit * 16 + static_cast<std::uint32_t>(value);
    }
    rest.remove_prefix(HexDigits);
    return true;
}

// Takes the digits of an escape, and of the one behind it that belongs to it, and appends the code point.
bool appendCodePoint(std::string_view &rest, std::string &decoded, Pairs pairs)
{
    std::uint32_t unit = 0;
    if (!takeUnit(rest, unit))
        return false;
    if (pairs == Pairs::Joined && isHighSurrogate(unit) && rest.substr(0, 2) == "\\u") {
        std::uint32_t low = 0;
        rest.remove_prefix(2);
        if (!takeUnit(rest, low) || !isLowSurrogate(low))
            return false;
        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    if (isHighSurrogate(unit) || isLowSurrogate(unit))
        return false;
    utf8::append(unit, std::back_inserter(decoded));
    return true;
}

// Takes the escape, without its backslash, at the start of `rest` and appends what it stands for.
bool appendEscape(std::string_view &rest, std::string &decoded, Pairs pairs)
{
    constexpr std::string_view Letters = "\"/\\bfnrt";
    constexpr std::string_view Meanings = "\"/\\\b\f\n\r\t";
    if (rest.empty())
        return false;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (letter == 'u')
        return appendCodePoint(rest, decoded, pairs);
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

bool appendDecoded(std::string_view rest, std::string &decoded, Pairs pairs)
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
            if (!appendEscape(rest, decoded, pairs))
                return false;
        }
    }
    return true;
}

bool decode(std::string_view raw, std::string &decoded, Pairs pairs)
{
    if (isPlainAscii(raw)) { // as nearly every id is
        decoded = raw;
        return true;
    }
    decoded.clear();
    if (!appendDecoded(raw, decoded, pairs)) {
        decoded.clear();
        return false;
    }
    return true;
}

} // namespace

bool decodeJsonString(std::string_view raw, std::string &decoded)
{
    return decode(raw, decoded, Pairs::Refused);
}

bool decodeJsonText(std::string_view raw, std::string &decoded)
{
    return decode(raw, decoded, Pairs::Joined);
}

bool isValidUtf8(std::string_view text) { return utf8::is_valid(text.begin(), text.end()); }

} // namespace zq::elasticsearch
