// The text of param values. Needs nothing of the server.
#pragma once

#include <string>

namespace qm::pgFdwElaticSearch
{

enum class ParamName {
    Malformed,
    Unknown,
    Query,
    SourceIncludeFilter,
    SourceExcludeFilter,
    CompressionLevel,
    Highlight
};

struct Param {
    ParamName name;
    const char *value; // what follows the first "=", inside the text that was split; null when Malformed
};

// Splits `text`, which must outlive the result, at its first "=". Names are compared exactly.
Param splitParam(const std::string &text);

// Reads a compression level into `level`: a decimal number of which the low 32 bits count; text that is no
// number counts as 0. Returns false, and leaves `level` alone, when it is out of range.
bool readCompressionLevel(const char *text, int &level);

} // namespace qm::pgFdwElaticSearch
