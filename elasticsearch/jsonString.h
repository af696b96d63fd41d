// Decoding of one JSON string.
#pragma once

#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Decodes the text between the quotes of a JSON string into UTF-8. Returns false, and leaves `decoded`
// empty, when the text is not valid UTF-8 or an escape is not valid. Each \u escape stands for itself: half
// a surrogate pair is refused, so a pair written as two escapes is too.
bool decodeJsonString(std::string_view raw, std::string &decoded);

// The same, but two \u escapes that are a surrogate pair are one character.
bool decodeJsonText(std::string_view raw, std::string &decoded);

// Whether the text is valid UTF-8.
bool isValidUtf8(std::string_view text);

} // namespace zq::elasticsearch
