#include "parameterText.h"
#include "targets.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

using namespace qm::pgFdwElaticSearch;

namespace
{

ParamName nameOf(std::string_view input)
{
    if (input.find('=') == std::string_view::npos) {
        return ParamName::Malformed;
    }
    const auto startsWith = [&](std::string_view prefix) { return input.substr(0, prefix.size()) == prefix; };
    return startsWith("query=")                 ? ParamName::Query
           : startsWith("sourceincludefilter=") ? ParamName::SourceIncludeFilter
           : startsWith("sourceexcludefilter=") ? ParamName::SourceExcludeFilter
           : startsWith("compressionlevel=")    ? ParamName::CompressionLevel
           : startsWith("highlight=")           ? ParamName::Highlight
                                                : ParamName::Unknown;
}

/// The number, held within 64 bits, then its low 32 bits.
std::optional<int> levelOf(const char *text)
{
    text += std::strspn(text, " \t\n\v\f\r");
    const bool negative = *text == '-';
    text += *text == '-' || *text == '+' ? 1 : 0;
    const std::uint64_t most = std::numeric_limits<std::int64_t>::max() + std::uint64_t{negative};
    std::uint64_t number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        const auto digit = static_cast<std::uint64_t>(*text - '0');
        number = number > (most - digit) / 10 ? most : number * 10 + digit;
    }
    const std::uint64_t low = (negative ? 0 - number : number) & 0xFFFFFFFF;
    if (low <= 9) {
        return static_cast<int>(low);
    }
    return low >= 0xFFFFFFFE ? std::optional<int>(low == 0xFFFFFFFE ? -2 : -1) : std::nullopt;
}

} // namespace

std::string params(std::string_view input)
{
    const std::string text(input);
    const Param param = splitParam(text);
    if (param.name != nameOf(input)) {
        return "taken for name " + std::to_string(static_cast<int>(param.name));
    }
    if (param.name == ParamName::Malformed) {
        return param.value == nullptr ? "" : "a value where there is none";
    }
    if (param.value != text.c_str() + input.find('=') + 1) {
        return "the value begins elsewhere";
    }
    constexpr int untouched = 77;
    int level = untouched;
    const bool accepted = readCompressionLevel(param.value, level);
    const std::optional<int> expected = levelOf(param.value);
    if (accepted != expected.has_value() || level != expected.value_or(untouched)) {
        return "level " + std::to_string(level) + ", expected " +
               (expected ? std::to_string(*expected) : "a refusal");
    }
    return "";
}
