#include "elasticsearch/jsonString.h"
#include "elasticsearch/jsonWriter.h"
#include "targets.h"

#include <utf8.h>

#include <vector>

namespace
{

/// Escapes a valid text by its bytes. The control characters 128 to 159 are the bytes C2 80 to C2 9F.
std::string escapeSimply(const std::string &text)
{
    const std::string withLetter = "\b\t\n\f\r\"\\", letters = "btnfr\"\\", hexDigits = "0123456789ABCDEF";
    std::string escaped;
    const auto hex = [&](unsigned char byte) {
        escaped += std::string("\\u00") + hexDigits[byte / 16] + hexDigits[byte % 16];
    };
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (const std::size_t index = withLetter.find(text[at]); index != std::string::npos) {
            escaped += std::string("\\") + letters[index];
        } else if (byte < 32 || byte == 127) {
            hex(byte);
        } else if (byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0) {
            hex(static_cast<unsigned char>(text[++at]));
        } else {
            escaped += text[at];
        }
    }
    return escaped;
}

} // namespace

std::string jsonEscaper(std::string_view input)
{
    const std::vector<char> bytes(input.begin(), input.end()); // of exactly this size, unlike a std::string
    const std::string text(input), before = "{\"";
    std::string out = before;
    const bool accepted = zq::elasticsearch::Utf8ToJson(bytes.data(), bytes.data() + bytes.size(), out);
    if (accepted != utf8::is_valid(text.begin(), text.end())) {
        return accepted ? "accepted, but should be refused" : "refused, but should be accepted";
    }
    if (out.compare(0, before.size(), before) != 0) {
        return "what was there before is gone";
    }
    if (!accepted) {
        return "";
    }
    const std::string escaped = out.substr(before.size()), expected = escapeSimply(text);
    std::string decoded;
    if (!zq::elasticsearch::decodeJsonString(escaped, decoded) || decoded != text) {
        return "does not decode to the input: <" + escaped + ">";
    }
    return escaped == expected ? "" : "saw <" + escaped + ">, expected <" + expected + ">";
}
