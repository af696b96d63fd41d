// Values of rows, made of what was fetched.
#pragma once

#include "server/byteValues.h"
#include "server/encoding.h"

#include <string_view>

namespace qm::search
{

struct Value {
    Datum datum;
    bool isNull;
};

constexpr Value Null = {0, true};

// What a column takes of a JSON text.
enum class Container { Bytes, Text, Json };

// [server side] A text, or a C string, of UTF-8 in the encoding of the database, in the current memory
// context. Raises the server's error for what that cannot hold.
Datum textOf(std::string_view utf8);
char *cStringOf(std::string_view utf8);

// [server side] A jsonb of JSON text in UTF-8, in the current memory context. Raises the server's error for
// what that cannot hold.
Datum jsonOf(std::string_view utf8);

// [server side] A float4 made of the text of a score, a C string in UTF-8. Raises 22P02 for one that is no
// number, and quotes it.
Datum scoreOf(Datum text);

// [server side] The value of a JSON text (a text datum in UTF-8) at a compression level, in the current
// memory context; as it is at RawLevel. NULL for an empty one, and when zlib fails. Raises the server's
// errors for what the container cannot hold: a compressed value is no text, and only JSON is json.
Value contentValue(Datum json, int level, Container container, server::DeflateStream &stream);

} // namespace qm::search
