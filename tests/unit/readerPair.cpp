// The reader under test and the reference reader side by side.
#include "readerPair.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace
{

std::ostream &operator<<(std::ostream &out, const Document &document)
{
    return out << '[' << document.docId << "] [" << document.content << "] [" << document.score << "] ["
               << document.highlight << "] [" << document.docType << ']';
}

template <class Value>
std::string differ(const char *what, const Value &seen, const Value &expected)
{
    if (seen == expected) {
        return "";
    }
    std::ostringstream text;
    text << what << ": saw <" << seen << ">, expected <" << expected << ">";
    return text.str();
}

std::string firstOf(std::initializer_list<std::string> differences)
{
    const auto found = std::find_if(differences.begin(), differences.end(),
                                    [](const std::string &difference) { return !difference.empty(); });
    return found == differences.end() ? "" : *found;
}

std::string compareDocuments(const std::vector<Document> &seen, const std::vector<Document> &expected,
                             std::size_t first)
{
    std::string difference = differ("number of documents", seen.size(), expected.size());
    for (std::size_t i = first; difference.empty() && i < seen.size(); ++i) {
        difference = differ("document", seen[i], expected[i]);
    }
    return difference;
}

} // namespace

std::string describe(const zq::elasticsearch::SearchResponseStatus &status)
{
    std::ostringstream text;
    text << (status.timedOut ? "timed out, " : "in time, ") << status.totalShards << " shards, "
         << status.successfulShards << " good, " << status.failedShards << " failed";
    return text.str();
}

std::string describe(const std::map<std::string, std::string> &status)
{
    const auto number = [&](const char *name) {
        const auto member = status.find(name);
        return member == status.end() ? 0 : std::strtol(member->second.c_str(), nullptr, 10);
    };
    const auto timedOut = status.find("timed_out");
    return describe({timedOut != status.end() && timedOut->second == "true", number("total"),
                     number("successful"), number("failed")});
}

std::string Outcome::differenceFrom(const Outcome &expected) const
{
    return firstOf({differ("finish text", finishText, expected.finishText),
                    differ("error text", errorText, expected.errorText),
                    differ("total", totalHitCount, expected.totalHitCount),
                    differ("scroll id", scrollId, expected.scrollId),
                    differ("status", status, expected.status),
                    compareDocuments(documents, expected.documents, 0)});
}

bool ReaderPair::feed(std::string_view chunk)
{
    if (!difference.empty()) {
        return false;
    }
    // A copy of its own that dies at once: a look beyond the chunk, or back into it later, is a memory error.
    const std::vector<char> bytes(chunk.begin(), chunk.end());
    const bool fastVerdict = fast.addData(bytes.data(), bytes.size());
    difference = compare(fastVerdict, reference.addData(chunk.data(), chunk.size()));
    return difference.empty();
}

bool ReaderPair::feedAll(std::string_view text, std::size_t chunkSize)
{
    bool agreed = true;
    for (std::size_t at = 0; agreed && at < text.size(); at += chunkSize) {
        agreed = feed(text.substr(at, chunkSize));
    }
    return agreed;
}

std::string ReaderPair::compare(bool fastVerdict, bool referenceVerdict)
{
    std::string fastText, referenceText;
    const bool fastFinished = fast.finish(&fastText);
    const bool referenceFinished = reference.finish(&referenceText);
    const bool same = fastVerdict == referenceVerdict && fastFinished == referenceFinished &&
                      fastText == referenceText && fast.getErrorMessage() == reference.getErrorMessage() &&
                      fast.getTotalHitCount() == reference.getTotalHitCount() &&
                      fast.getTotalHits() == reference.getTotalHits() &&
                      fast.isTotalLowerBound() == reference.isTotalLowerBound() &&
                      fast.getScrollId() == reference.getScrollId() &&
                      describe(fast.getStatus()) == describe(reference.getStatus()) &&
                      compareDocuments(fast.documents, reference.documents, comparedDocuments).empty();
    comparedDocuments = fast.documents.size();
    if (same) {
        return "";
    }
    const std::string rest = outcomeOf(fast).differenceFrom(outcomeOf(reference));
    return rest.empty() ? differ("verdict", fastVerdict, referenceVerdict) : rest;
}
