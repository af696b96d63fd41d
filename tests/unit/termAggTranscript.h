// What an aggregation reader shows, written down, for a comparison with the reference reader.
#pragma once

#include "referenceTermAggReader.h"
#include "elasticsearch/termAggResultParserInterface.h"

#include <string>
#include <string_view>
#include <vector>

/// The events of a reader as `name=count[keys]`; with verdicts also what each chunk was answered, "!" where the
/// answer might end there; in the end "good", or "bad" with the error text.
template <class Reader>
class Transcript : public Reader
{
public:
    static std::string of(const std::vector<std::string_view> &chunks, bool collectValues, bool withVerdicts)
    {
        Transcript reader(collectValues);
        for (const std::string_view chunk : chunks) {
            // A copy of its own that dies at once: a look beyond the chunk, or back into it later, is a memory
            // error.
            const std::vector<char> bytes(chunk.begin(), chunk.end());
            const bool verdict = reader.addData(bytes.data(), bytes.size());
            if (withVerdicts) {
                reader.text += std::string(verdict ? "on" : "stop") + (reader.finish() ? "! " : " ");
            }
        }
        return reader.text + (reader.finish() ? "good" : "bad ") + reader.getErrorMessage();
    }

    void onAttributes(const std::string &name, int count, const std::string &values) override
    {
        text += name + "=" + std::to_string(count) + values + " ";
    }

private:
    using Reader::Reader;
    std::string text;
};

/// Where the reader and the reference reader differ, or nothing.
inline std::string termAggDisagreement(const std::vector<std::string_view> &chunks)
{
    for (const bool collectValues : {true, false}) {
        using Fast = Transcript<zq::elasticsearch::TermAggResultParserInterface>;
        const std::string saw = Fast::of(chunks, collectValues, true);
        const std::string expected = Transcript<ReferenceTermAggReader>::of(chunks, collectValues, true);
        if (saw != expected) {
            return "saw: " + saw + "\nexpected: " + expected;
        }
    }
    return "";
}
