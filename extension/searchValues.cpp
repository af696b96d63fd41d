// Values of SQL as the search can be told them. All of this is on the server's side of the error boundary.
#include "extension/searchValues.h"
#include "server/encoding.h"

#include <cmath>

namespace qm::extension
{
namespace
{

using Form = SearchValue::Form;

SearchValue wholeOf(int64 number) { return {Form::Whole, nullptr, number, 0}; }

SearchValue textOf(const char *text) { return {Form::Text, server::serverToUtf8(text), 0, 0}; }

SearchValue realOf(double number)
{
    return {std::isfinite(number) ? Form::Real : Form::Unsayable, nullptr, 0, number};
}

SearchValue instantOf(Datum timestamp)
{
    const Timestamp microseconds = DatumGetTimestamp(timestamp);
    constexpr int64 To1970 = int64{POSTGRES_EPOCH_JDATE - UNIX_EPOCH_JDATE} * USECS_PER_DAY;
    if (TIMESTAMP_NOT_FINITE(microseconds))
        return {Form::Unsayable, nullptr, 0, 0};
    return wholeOf(microseconds + To1970);
}

// Whether the day, counted from the year 2000 on, is one that timestamps have, and not far from the years 0
// to 9999 that a request can name.
bool isNear(DateADT day)
{
    constexpr DateADT First = -800'000;
    constexpr DateADT Last = 3'000'000;
    return day >= First && day <= Last;
}

// Dates and timestamps without a zone become instants as the server's comparison takes them.
SearchValue dateOf(Datum value, Oid type, bool hasZone)
{
    if (type == DATEOID) {
        if (!isNear(DatumGetDateADT(value)))
            return {Form::Unsayable, nullptr, 0, 0};
        return instantOf(DirectFunctionCall1(hasZone ? date_timestamptz : date_timestamp, value));
    }
    if (type == TIMESTAMPOID && hasZone) {
        if (!isNear(static_cast<DateADT>(DatumGetTimestamp(value) / USECS_PER_DAY)))
            return {Form::Unsayable, nullptr, 0, 0};
        value = DirectFunctionCall1(timestamp_timestamptz, value);
    }
    return instantOf(value);
}

// Networks are no addresses of hosts.
SearchValue hostOf(Datum value)
{
    const inet *address = DatumGetInetPP(value);
    if (ip_bits(address) != ip_maxbits(address))
        return {Form::Unsayable, nullptr, 0, 0};
    return textOf(TextDatumGetCString(DirectFunctionCall1(network_host, value)));
}

SearchValue searchValueOf(Datum value, Oid type, Oid columnType)
{
    switch (type) {
    case INT2OID:
        return wholeOf(DatumGetInt16(value));
    case INT4OID:
        return wholeOf(DatumGetInt32(value));
    case INT8OID:
        return wholeOf(DatumGetInt64(value));
    case BOOLOID:
        return wholeOf(DatumGetBool(value) ? 1 : 0);
    case FLOAT4OID:
        return realOf(static_cast<double>(DatumGetFloat4(value)));
    case FLOAT8OID:
        return realOf(DatumGetFloat8(value));
    case NUMERICOID:
        return realOf(DatumGetFloat8(DirectFunctionCall1(numeric_float8_no_overflow, value)));
    case DATEOID:
    case TIMESTAMPOID:
    case TIMESTAMPTZOID:
        return dateOf(value, type, columnType == TIMESTAMPTZOID);
    case INETOID:
        return hostOf(value);
    default: {
        Oid output;
        bool isVariableLength;
        getTypeOutputInfo(type, &output, &isVariableLength);
        return textOf(OidOutputFunctionCall(output, value));
    }
    }
}

// Below domains, of an array the type of its elements.
Oid valueType(Oid type, Oid &arrayElement)
{
    const Oid base = getBaseType(type);
    arrayElement = get_element_type(base);
    return OidIsValid(arrayElement) ? getBaseType(arrayElement) : base;
}

} // namespace

SearchValues searchValuesOf(Datum value, bool isNull, Oid type, Oid columnType)
{
    Oid element;
    Oid columnElement;
    const Oid base = valueType(type, element);
    const Oid compared = valueType(columnType, columnElement);
    if (isNull)
        return {nullptr, 0, true};
    if (!OidIsValid(element)) {
        auto *one = static_cast<SearchValue *>(palloc(sizeof(SearchValue)));
        *one = searchValueOf(value, base, compared);
        return {one, 1, false};
    }
    int16 length;
    bool isByValue;
    char alignment;
    get_typlenbyvalalign(element, &length, &isByValue, &alignment);
    Datum *elements = nullptr;
    bool *nulls = nullptr;
    int count = 0;
    deconstruct_array(DatumGetArrayTypeP(value), element, length, isByValue, alignment, &elements, &nulls,
                      &count);
    auto *values = static_cast<SearchValue *>(
        MemoryContextAllocHuge(CurrentMemoryContext, (static_cast<Size>(count) + 1) * sizeof(SearchValue)));
    SearchValues all = {values, 0, false};
    for (int i = 0; i < count; ++i)
        if (nulls[i])
            all.hasNull = true;
        else
            values[all.count++] = searchValueOf(elements[i], base, compared);
    return all;
}

} // namespace qm::extension
