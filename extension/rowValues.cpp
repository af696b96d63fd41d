// The values of a row, made of a hit. All of this is on the server's side of the error boundary.
#include "extension/rowValues.h"

#include <chrono>

namespace qm::extension
{
namespace
{

void pack(std::string_view bytes, Packing &packing, varlena *&value)
{
    server::compressBytes(bytes.data(), static_cast<unsigned int>(bytes.size()), value,
                          packing.compressionLevel, packing.stream);
}

Datum bytesOf(std::string_view bytes, Packing &packing)
{
    using Clock = std::chrono::steady_clock;
    varlena *value = nullptr;
    if (packing.compressionLevel == server::RawLevel) {
        pack(bytes, packing, value);
    } else {
        const Clock::time_point begin = Clock::now();
        pack(bytes, packing, value);
        packing.deflatedMs += std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    }
    if (!value)
        ereport(ERROR, (errcode(ERRCODE_OUT_OF_MEMORY), errmsg("out of memory")));
    return PointerGetDatum(value);
}

Datum datumOf(const Column &column, std::string_view utf8, Packing &packing)
{
    switch (column.baseType) {
    case FLOAT4OID:
        return DirectFunctionCall1(float4in, CStringGetDatum(search::cStringOf(utf8)));
    case FLOAT8OID:
        return DirectFunctionCall1(float8in, CStringGetDatum(search::cStringOf(utf8)));
    case JSONBOID:
        return search::jsonOf(utf8);
    case JSONOID:
        return DirectFunctionCall1(json_in, CStringGetDatum(search::cStringOf(utf8)));
    case BYTEAOID:
        return bytesOf(utf8, packing);
    default:
        return search::textOf(utf8);
    }
}

} // namespace

search::Value makeValue(Column &column, const RawValue &raw, Packing &packing)
{
    search::Value value = search::Null;
    if (column.role == Role::Field)
        value = makeFieldValue(*column.field, raw.field);
    else if (raw.isThere)
        value = {datumOf(column, raw.utf8, packing), false};
    if (column.type != column.baseType)
        domain_check(value.datum, value.isNull, column.type, nullptr, nullptr);
    if (value.isNull && column.isRequired)
        ereport(ERROR,
                (errcode(ERRCODE_NOT_NULL_VIOLATION),
                 errmsg("null value in column \"%s\" of a foreign table violates its not-null constraint",
                        column.name)));
    return value;
}

} // namespace qm::extension
