// Writing JSON.
#pragma once

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Appends the UTF-8 text [begin, end) to `out` as the content of a JSON string, without the quotes. Returns
// false when the bytes are not valid UTF-8; what was appended until then stays.
bool Utf8ToJson(const char *begin, const char *end, std::string &out);

// Appends the UTF-8 text as a JSON string with its quotes; false as for Utf8ToJson.
bool appendJsonString(std::string &out, std::string_view utf8);

} // namespace zq::elasticsearch
