// The reader under test and the reference reader side by side.
#pragma once

#include "referenceSearchReader.h"
#include "elasticsearch/searchResultParserInterface.h"

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

struct Document {
    std::string docId, content, score, highlight, docType;

    bool operator==(const Document &other) const
    {
        return std::tie(docId, content, score, highlight, docType) ==
               std::tie(other.docId, other.content, other.score, other.highlight, other.docType);
    }
};

/// Adds the documents' list to a reader.
template <class Reader>
class Collecting : public Reader
{
public:
    void onNewDocument(const std::string &id, const std::string &source, const std::string &scoreText,
                       const std::string &highlights, const std::string &type) override
    {
        documents.push_back({id, source, scoreText, highlights, type});
    }

    std::vector<Document> documents;
};

using FastReader = Collecting<zq::elasticsearch::SearchResultParserInterface>;

/// All that a reader shows to the outside at one moment.
struct Outcome {
    std::string finishText; ///< empty when the end would be accepted
    std::string errorText;
    int totalHitCount = 0;
    std::string scrollId;
    std::vector<Document> documents;
    std::string status; ///< what it tells about shards and time

    /// Tells the first difference, or nothing when there is none.
    std::string differenceFrom(const Outcome &expected) const;
};

std::string describe(const zq::elasticsearch::SearchResponseStatus &status);
std::string describe(const std::map<std::string, std::string> &status);

template <class Reader>
Outcome outcomeOf(Reader &reader)
{
    std::string finishText;
    reader.finish(&finishText);
    return {finishText,           reader.getErrorMessage(), reader.getTotalHitCount(),
            reader.getScrollId(), reader.documents,         describe(reader.getStatus())};
}

/// Feeds both readers the same chunks. Feeding goes on after a refused chunk, so that a transport that stops
/// there and one that does not are both covered.
class ReaderPair
{
public:
    /// Feeds one chunk and compares the verdict and all that can be seen after it. Returns whether the
    /// readers agree so far.
    bool feed(std::string_view chunk);
    /// Feeds chunks of `chunkSize` bytes.
    bool feedAll(std::string_view text, std::size_t chunkSize);

    Outcome outcome() { return outcomeOf(fast); }
    /// What the readers disagree about, if they do.
    const std::string &disagreement() const { return difference; }

private:
    std::string compare(bool fastVerdict, bool referenceVerdict);

    FastReader fast;
    Collecting<ReferenceSearchReader> reference;
    std::size_t comparedDocuments = 0;
    std::string difference;
};
