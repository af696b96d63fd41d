#include "elasticsearch/jsonString.h"
#include "targets.h"

#include <utf8.h>

#include <iterator>
#include <optional>
#include <vector>

namespace
{

/// Decodes a text whose validity as a whole is settled first, so that the escapes can be replaced bytewise.
std::optional<std::string> decodeSimply(const std::string &raw)
{
    if (!utf8::is_valid(raw.begin(), raw.end())) {
        return std::nullopt;
    }
    std::string decoded;
    for (std::size_t at = 0; at < raw.size(); ++at) {
        if (raw[at] != '\\') {
            decoded += raw[at];
            continue;
        }
        const std::string letters = "\"/\\bfnrt", meanings = "\"/\\\b\f\n\r\t";
        const char letter = ++at < raw.size() ? raw[at] : '?';
        if (const std::size_t index = letters.find(letter); index != std::string::npos) {
            decoded += meanings[index];
            continue;
        }
        const std::string digits = letter == 'u' ? raw.substr(at + 1, 4) : "";
        if (digits.size() < 4 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return std::nullopt;
        }
        const unsigned long unit = std::stoul(digits, nullptr, 16);
        if (unit / 0x800 == 0xD800 / 0x800) {
            return std::nullopt;
        }
        utf8::append(static_cast<char32_t>(unit), std::back_inserter(decoded));
        at += 4;
    }
    return decoded;
}

} // namespace

std::string idDecoder(std::string_view input)
{
    const std::vector<char> raw(input.begin(), input.end()); // of exactly this size, unlike a std::string
    std::string decoded = "what was there before";
    const bool accepted = zq::elasticsearch::decodeJsonString({raw.data(), raw.size()}, decoded);
    const std::optional<std::string> expected = decodeSimply(std::string(input));
    if (accepted != expected.has_value()) {
        return accepted ? "accepted, but should be refused" : "refused, but should be accepted";
    }
    return decoded == expected.value_or("")
               ? ""
               : "saw <" + decoded + ">, expected <" + expected.value_or("") + ">";
}
