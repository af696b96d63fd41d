// probe_term_agg(answer text, chunk integer, slots integer, level integer, collect boolean) returns text: what a
// TermAggResultParser says of the answer, fed in chunks, on one line, and each slot's count and value on
// another. The last line is of one slot too many, which nobody may touch.
#include "probe.h"

#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <algorithm>

namespace
{

std::string asHex(varlena *value)
{
    return value ? DatumGetCString(DirectFunctionCall1(byteaout, PointerGetDatum(value))) : "null";
}

} // namespace

PROBE(probe_term_agg)
{
    return qm::pgFdw::guardEntry([&] {
        const std::string answer = probe::textArgument(fcinfo, 0);
        const auto chunk = static_cast<size_t>(PG_GETARG_INT32(1));
        const int slots = PG_GETARG_INT32(2);
        bytea *stale = cstring_to_text("stale");
        std::vector<varlena *> values(static_cast<size_t>(slots) + 1, stale);
        std::vector<int> counts(values.size(), -1);

        qm::pgFdw::TermAggResultParser parser(slots, PG_GETARG_INT32(3), values.data(), counts.data(),
                                              PG_GETARG_BOOL(4));
        bool goesOn = true;
        for (size_t at = 0; goesOn && at < answer.size(); at += chunk)
            goesOn = parser.addData(answer.data() + at, std::min(chunk, answer.size() - at));
        std::string result = std::string(goesOn ? "on " : "stop ") + (parser.finish() ? "good " : "bad ") +
                             parser.getErrorMessage();
        for (size_t i = 0; i < values.size(); ++i)
            result += "\n" + std::to_string(counts[i]) + " " + (values[i] == stale ? "stale" : asHex(values[i]));
        return probe::textResult(result);
    });
}
