#include "chunkedText.h"
#include "referenceTermAggReader.h"
#include "targets.h"
#include "termAggResultParserInterface.h"

#include <vector>

namespace
{

/// Writes down all that a reader shows after each chunk.
template <class Reader>
class Witness : public Reader
{
public:
    using Reader::Reader;

    void feed(std::string_view chunk)
    {
        // A copy of its own that dies at once: a look beyond the chunk, or back into it later, is a memory
        // error.
        const std::vector<char> bytes(chunk.begin(), chunk.end());
        seen += this->addData(bytes.data(), bytes.size()) ? "on " : "stop ";
        seen += (this->finish() ? "good " : "bad ") + this->getErrorMessage() + "\n";
    }

    void onAttributes(const std::string &name, int count, const std::string &values) override
    {
        seen += name + "=" + std::to_string(count) + values + "\n";
    }

    std::string seen;
};

} // namespace

std::string termAggReader(std::string_view input)
{
    for (const bool collectValues : {true, false}) {
        Witness<zq::elasticsearch::TermAggResultParserInterface> fast(collectValues);
        Witness<ReferenceTermAggReader> reference(collectValues);
        for (const std::string_view chunk : chunksOf(input)) {
            fast.feed(chunk);
            reference.feed(chunk);
        }
        if (fast.seen != reference.seen) {
            return "saw:\n" + fast.seen + "expected:\n" + reference.seen;
        }
    }
    return "";
}
