// Values of rows, made of what was fetched.
#include "search/values.h"

namespace qm::search
{
namespace
{

// What was fetched is the value already: a text and a bytea look the same.
Datum rawValue(Datum json, Container container)
{
    if (container == Container::Bytes)
        return json;
    const Datum converted = server::utf8ToServer(json);
    if (container == Container::Json)
        DirectFunctionCall1(json_in, CStringGetDatum(TextDatumGetCString(converted))); // refuses what is none
    return converted;
}

} // namespace

Datum textOf(std::string_view utf8)
{
    const auto length = static_cast<int>(utf8.size());
    const char *converted = pg_any_to_server(utf8.data(), length, PG_UTF8);
    return PointerGetDatum(converted == utf8.data() ? cstring_to_text_with_len(utf8.data(), length)
                                                    : cstring_to_text(converted));
}

char *cStringOf(std::string_view utf8)
{
    const auto length = static_cast<int>(utf8.size());
    char *converted = pg_any_to_server(utf8.data(), length, PG_UTF8);
    return converted == utf8.data() ? pnstrdup(utf8.data(), length) : converted;
}

Datum jsonOf(std::string_view utf8)
{
    return DirectFunctionCall1(jsonb_in, CStringGetDatum(cStringOf(utf8)));
}

Datum scoreOf(Datum text)
{
    const char *number = server::utf8ToMessage(DatumGetCString(text));
    return DirectFunctionCall1Coll(float4in, InvalidOid, CStringGetDatum(number));
}

Value contentValue(Datum json, int level, Container container, server::DeflateStream &stream)
{
    const auto *bytes = reinterpret_cast<const text *>(DatumGetPointer(json));
    if (VARSIZE_ANY_EXHDR(bytes) == 0)
        return Null;
    if (level == server::RawLevel)
        return {rawValue(json, container), false};
    varlena *compressed = nullptr;
    server::compressBytes(VARDATA_ANY(bytes), VARSIZE_ANY_EXHDR(bytes), compressed, level, stream);
    if (!compressed)
        return Null;
    if (container != Container::Bytes)
        server::checkText(compressed);
    return {PointerGetDatum(compressed), false};
}

} // namespace qm::search
