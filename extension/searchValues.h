// Values of SQL as the search can be told them.
#pragma once

#include "server/serverApi.h"

#include <cstdint>

namespace qm::extension
{

// Plain data in server memory.
struct SearchValue {
    enum class Form {
        Text,  // in UTF-8
        Whole, // a whole number; 0 or 1 of truth values; microseconds since 1970 in UTC of dates
        Real,
        Unsayable // infinities and the like
    };
    Form form;
    const char *text;
    int64 whole;
    double real;
};

struct SearchValues {
    SearchValue *first;
    int count;
    bool hasNull; // NULLs are left out

    const SearchValue *begin() const { return first; }
    const SearchValue *end() const { return first + count; }
};

// [server side] The value of an expression, or each of an array's, for a comparison with a column of a type
// (both types may be domains), in the current memory context.
SearchValues searchValuesOf(Datum value, bool isNull, Oid type, Oid columnType);

} // namespace qm::extension
