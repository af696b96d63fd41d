// The values of a row, made of a hit.
#pragma once

#include "extension/columns.h"
#include "extension/fieldValues.h"
#include "search/values.h"

#include <string>
#include <string_view>

namespace qm::extension
{

// What a hit brings for a column: nothing, a text, JSON, or the values of a field. The bytes must live until
// the value is made.
struct RawValue {
    std::string_view utf8;
    bool isThere = false;
    FieldValues field;
};

// How bytea columns are packed.
struct Packing {
    int compressionLevel;
    server::DeflateStream stream;
    double deflatedMs; // so far
};

// [server side] The value of a column, in the current memory context. Raises the server's own error for what
// the column's type, its domain or NOT NULL do not take.
search::Value makeValue(Column &column, const RawValue &raw, Packing &packing);

} // namespace qm::extension
