// A decoder of JSON strings for tests: it judges the fast one, and shares nothing with it.
#pragma once

#include <utf8.h>

#include <iterator>
#include <optional>
#include <string>

// Decodes what stands between the quotes; nothing when that is not valid or names a surrogate. The validity
// as a whole is settled first, so that the escapes can be replaced byte by byte.
inline std::optional<std::string> decodeSimply(const std::string &raw)
{
    const std::string letters = "\"/\\bfnrt", meanings = "\"/\\\b\f\n\r\t", hex = "0123456789abcdefABCDEF";
    std::string decoded;
    bool isGood = utf8::is_valid(raw.begin(), raw.end());
    for (std::size_t at = 0; isGood && at < raw.size(); ++at) {
        if (raw[at] != '\\') {
            decoded += raw[at];
            continue;
        }
        const char letter = ++at < raw.size() ? raw[at] : '?';
        if (const std::size_t index = letters.find(letter); index != std::string::npos) {
            decoded += meanings[index];
            continue;
        }
        const std::string digits = letter == 'u' ? raw.substr(at + 1, 4) : "";
        isGood = digits.size() == 4 && digits.find_first_not_of(hex) == std::string::npos &&
                 std::stoul(digits, nullptr, 16) / 0x800 != 0xD800 / 0x800;
        if (isGood) {
            utf8::append(static_cast<char32_t>(std::stoul(digits, nullptr, 16)), std::back_inserter(decoded));
            at += 4;
        }
    }
    return isGood ? std::optional<std::string>(decoded) : std::nullopt;
}
