// Types of columns that show a field of the source.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

// What a field's values have to be to become those of a column.
enum class FieldKind {
    Text,      // any scalar, as its text
    Whole,     // a number without a fraction, of 16, 32 or 64 bits
    Number,    // a number
    Boolean,   // true or false
    Date,      // a date, of which the day in UTC counts
    Timestamp, // a date
    Json       // any value, as it stands
};

// What a column's type makes of a field's values: one of it, or an array of them. Plain data.
struct FieldType {
    FieldKind kind;
    bool isArray;
    Oid element;     // the type of one value, as declared
    Oid elementBase; // below domains
    int32 typmod;
    int16 length; // of the element's type, as pg_type has it
    bool isByValue;
    char alignment;
    FmgrInfo input; // the input function of the element's base type
    Oid inputParameter;
};

// What becomes of a field's values in a column; in the current memory context. Throws FdwError for a column
// of a type that no field can have.
FieldType readFieldType(Form_pg_attribute attribute);

} // namespace qm::extension
