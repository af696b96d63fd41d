// probe_term_agg(response text, chunk integer, slots integer, level integer, collect boolean) returns text:
// what a TermAggResultParser says of the response, fed in chunks, on one line, and each slot's count and
// value on another. The last line is of one slot too many, which nobody may touch.
#include "probe.h"

#include "quelmoraPgFdwTermAggResultParser.h"

#include <cstring>

// What is on the stack has no destructor: the collector raises the server's own errors, which leave it
// behind.
PROBE(probe_term_agg)
{
    const char *response = text_to_cstring(PG_GETARG_TEXT_PP(0));
    const auto chunk = static_cast<size_t>(PG_GETARG_INT32(1));
    const int slots = PG_GETARG_INT32(2);
    bytea *stale = cstring_to_text("stale");
    auto **values = static_cast<varlena **>(palloc(sizeof(varlena *) * (slots + 1)));
    auto *counts = static_cast<int *>(palloc(sizeof(int) * (slots + 1)));
    values[slots] = stale;
    counts[slots] = -1;

    auto *parser =
        new qm::pgFdw::TermAggResultParser(slots, PG_GETARG_INT32(3), values, counts, PG_GETARG_BOOL(4));
    bool goesOn = true;
    for (size_t left = std::strlen(response); goesOn && left > 0; left -= Min(chunk, left))
        goesOn = parser->addData(response + std::strlen(response) - left, Min(chunk, left));
    StringInfoData result;
    initStringInfo(&result);
    appendStringInfo(&result, "%s %s %s", goesOn ? "on" : "stop", parser->finish() ? "good" : "bad",
                     parser->getErrorMessage().c_str());
    delete parser;

    for (int i = 0; i <= slots; ++i)
        appendStringInfo(
            &result, "\n%d %s", counts[i],
            values[i] ? DatumGetCString(DirectFunctionCall1(byteaout, PointerGetDatum(values[i]))) : "null");
    return PointerGetDatum(cstring_to_text(result.data));
}
