// Text as JSON string content. Needs nothing of the server.
#pragma once

#include <string>

namespace qm::pgFdwElaticSearch
{

// Appends the UTF-8 text [begin, end) to `out` as the content of a JSON string, without the quotes. Returns
// false when the bytes are not valid UTF-8; what was appended until then stays.
bool Utf8ToJson(const char *begin, const char *end, std::string &out);

} // namespace qm::pgFdwElaticSearch
