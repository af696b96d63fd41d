// probe_term_agg(answer text, chunk integer, slots integer, level integer, collect boolean) returns text: what a
// TermAggResultParser says of the answer, fed in chunks, on one line, and each slot's count and value on
// another. The last line is of one slot too many, which nobody may touch.
#include "probe.h"

#include "quelmoraPgFdwTermAggResultParser.h"

#include <cstring>

namespace
{

const char *asHex(varlena *value)
{
    return value ? DatumGetCString(DirectFunctionCall1(byteaout, PointerGetDatum(value))) : "null";
}

// Feeds the whole answer; returns whether it was read to its end.
bool feed(qm::pgFdw::TermAggResultParser *parser, const char *answer, size_t chunk)
{
    const size_t length = std::strlen(answer);
    for (size_t at = 0; at < length; at += chunk) {
        if (!parser->addData(answer + at, Min(chunk, length - at)))
            return false;
    }
    return true;
}

} // namespace

// What is on the stack has no destructor: the collector raises the server's own errors.
PROBE(probe_term_agg)
{
    const char *answer = text_to_cstring(PG_GETARG_TEXT_PP(0));
    const int slots = PG_GETARG_INT32(2);
    bytea *stale = cstring_to_text("stale");
    auto **values = static_cast<varlena **>(palloc(sizeof(varlena *) * (slots + 1)));
    auto *counts = static_cast<int *>(palloc(sizeof(int) * (slots + 1)));
    values[slots] = stale;
    counts[slots] = -1;
    StringInfoData result;
    initStringInfo(&result);

    auto *parser = new qm::pgFdw::TermAggResultParser(slots, PG_GETARG_INT32(3), values, counts, PG_GETARG_BOOL(4));
    PG_TRY();
    {
        const bool goesOn = feed(parser, answer, PG_GETARG_INT32(1));
        appendStringInfo(&result, "%s %s %s", goesOn ? "on" : "stop", parser->finish() ? "good" : "bad",
                         parser->getErrorMessage().c_str());
    }
    PG_CATCH();
    {
        delete parser;
        PG_RE_THROW();
    }
    PG_END_TRY();
    delete parser;

    for (int i = 0; i <= slots; ++i)
        appendStringInfo(&result, "\n%d %s", counts[i], values[i] == stale ? "stale" : asHex(values[i]));
    return PointerGetDatum(cstring_to_text(result.data));
}
