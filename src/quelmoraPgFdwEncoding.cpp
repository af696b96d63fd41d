// Texts between the database's encoding and UTF-8.
#include "quelmoraPgFdwEncoding.h"

#include <cstring>

namespace qm::pgFdwElaticSearch
{

const char *serverToUtf8(const char *string)
{
    return pg_server_to_any(string, static_cast<int>(std::strlen(string)), PG_UTF8);
}

Datum utf8ToServer(Datum value)
{
    auto *utf8 = reinterpret_cast<text *>(DatumGetPointer(value));
    char *bytes = VARDATA_ANY(utf8);
    const char *converted = pg_any_to_server(bytes, static_cast<int>(VARSIZE_ANY_EXHDR(utf8)), PG_UTF8);
    return converted == bytes ? value : PointerGetDatum(cstring_to_text(converted));
}

void checkText(const varlena *value)
{
    pg_verifymbstr(VARDATA_ANY(value), static_cast<int>(VARSIZE_ANY_EXHDR(value)), false);
}

} // namespace qm::pgFdwElaticSearch
