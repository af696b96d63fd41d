// Texts between the database's encoding and UTF-8.
#include "quelmoraPgFdwEncoding.h"

#include <cstring>

namespace qm::pgFdwElaticSearch
{

const char *serverToUtf8(const char *string)
{
    return pg_server_to_any(string, static_cast<int>(std::strlen(string)), PG_UTF8);
}

Datum utf8ToText(const char *bytes, int length)
{
    const char *converted = pg_any_to_server(bytes, length, PG_UTF8);
    if (converted == bytes)
        return PointerGetDatum(cstring_to_text_with_len(converted, length));
    return PointerGetDatum(cstring_to_text(converted));
}

void checkText(const varlena *value)
{
    pg_verifymbstr(VARDATA_ANY(value), static_cast<int>(VARSIZE_ANY_EXHDR(value)), false);
}

} // namespace qm::pgFdwElaticSearch
