// Texts between the database's encoding and UTF-8.
#include "server/encoding.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace qm::server
{

namespace
{

// Takes the first character of the UTF-8 text out of it, into `out`, in the database's encoding, with "?" for
// what that cannot hold.
void moveCharacter(const char *&text, StringInfo out)
{
    const auto length = static_cast<int>(strnlen(text, pg_encoding_mblen(PG_UTF8, text)));
    volatile bool isKnown = false;
    const MemoryContext context = CurrentMemoryContext;
    PG_TRY();
    {
        appendStringInfoString(out, pg_any_to_server(pnstrdup(text, length), length, PG_UTF8));
        isKnown = true;
    }
    PG_CATCH();
    {
        MemoryContextSwitchTo(context);
        FlushErrorState();
    }
    PG_END_TRY();
    if (!isKnown)
        appendStringInfoChar(out, '?');
    const bool isValid = pg_verify_mbstr(PG_UTF8, text, length, true);
    text += isValid ? length : 1;
}

} // namespace

const char *utf8ToMessage(const char *text)
{
    const auto isAscii = [](char byte) { return static_cast<signed char>(byte) > 0; };
    const char *const end = text + std::strlen(text);
    if (std::all_of(text, end, isAscii))
        return text;
    StringInfoData message;
    initStringInfo(&message);
    while (text != end) {
        const char *const other = std::find_if_not(text, end, isAscii);
        appendBinaryStringInfo(&message, text, static_cast<int>(other - text));
        text = other;
        if (text != end)
            moveCharacter(text, &message);
    }
    return message.data;
}

const char *serverToUtf8(const char *string)
{
    // Such a database knows no encoding: nothing to convert, and whoever needs UTF-8 checks for it.
    if (GetDatabaseEncoding() == PG_SQL_ASCII)
        return string;
    return pg_server_to_any(string, static_cast<int>(std::strlen(string)), PG_UTF8);
}

void replaceInvalidBytes(char *text)
{
    size_t left = std::strlen(text);
    if (pg_verifymbstr(text, static_cast<int>(std::min<size_t>(left, INT_MAX)), true))
        return;
    while (left > 0) {
        const size_t length = std::min<size_t>(pg_mblen(text), left);
        if (pg_verifymbstr(text, static_cast<int>(length), true)) {
            text += length;
            left -= length;
        } else {
            *text++ = '?';
            --left;
        }
    }
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

} // namespace qm::server
