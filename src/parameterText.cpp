// The text of param values.
#include "parameterText.h"

#include <cstdint>
#include <cstdlib>

namespace qm::pgFdwElaticSearch
{
namespace
{

constexpr int lowestLevel = -2;
constexpr int highestLevel = 9;

constexpr struct {
    const char *text;
    ParamName name;
} paramNames[] = {
    {"query", ParamName::Query},
    {"sourceincludefilter", ParamName::SourceIncludeFilter},
    {"sourceexcludefilter", ParamName::SourceExcludeFilter},
    {"compressionlevel", ParamName::CompressionLevel},
    {"highlight", ParamName::Highlight},
};

} // namespace

Param splitParam(const std::string &text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        return {ParamName::Malformed, nullptr};
    const char *const value = text.c_str() + equals + 1;
    for (const auto &known : paramNames)
        if (text.compare(0, equals, known.text) == 0)
            return {known.name, value};
    return {ParamName::Unknown, value};
}

bool readCompressionLevel(const char *text, int &level)
{
    const auto number = static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
    if (number < lowestLevel || number > highestLevel)
        return false;
    level = number;
    return true;
}

} // namespace qm::pgFdwElaticSearch
