// Reading a whole JSON text that is to be of a certain form.
#pragma once

#include "elasticsearch/jsonCursor.h"
#include "elasticsearch/jsonString.h"

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>

namespace zq::elasticsearch
{

// Calls read(cursor), which must read the one value that the text is. Throws what the cursor throws, and
// JsonError for text behind the value.
template <typename Read>
void readJson(std::string_view text, Read &&read)
{
    JsonStructure structure;
    structure.extend(text.data(), text.size());
    JsonCursor cursor(text, structure, 0);
    read(cursor);
    if (!cursor.isAtEnd())
        throw JsonError("text behind the value", cursor.position());
}

// Takes a value: a string decoded, another scalar as it stands; empty for an object or an array, and for a
// string that is not valid Unicode.
inline std::string takeText(JsonCursor &cursor)
{
    const char first = cursor.peek();
    if (first == '{' || first == '[') {
        cursor.value();
        return "";
    }
    if (first != '"')
        return std::string(cursor.scalar());
    std::string decoded;
    decodeJsonText(cursor.string(), decoded);
    return decoded;
}

// Takes a value that is a whole number from 0 on; -1 for any other.
inline std::int64_t takeCount(JsonCursor &cursor)
{
    const std::string_view digits = cursor.value();
    std::int64_t number = -1;
    const auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return problem == std::errc() && end == digits.data() + digits.size() && number >= 0 ? number : -1;
}

} // namespace zq::elasticsearch
