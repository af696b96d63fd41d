// The collectors: readers of responses that keep what the caller asked for.
#pragma once

#include "elasticsearch/searchResultParserInterface.h"
#include "quelmoraPgFdwTermAggResultParser.h"
#include "search/page.h"

#include <exception>

namespace qm::pgFdw
{

// Collects the hits of one response into one list per wanted column; entry i of every filled list belongs to
// hit i. Each value is copied once, to where the rows will take it from. The values are as the reader hands
// them over: the id decoded, all else raw JSON, all in UTF-8. Reading throws std::bad_alloc, and raises
// nothing.
class SearchResultParser : public zq::elasticsearch::SearchResultParserInterface
{
public:
    // `expectedCount` only sizes the lists; more hits are welcome.
    SearchResultParser(int expectedCount, bool wantContent, bool wantScore, bool wantDocType,
                       bool wantHighlight);

    // Collects in memory that was used before and holds no hits any more.
    void collectIn(search::Hits &&memory);

    void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                       const std::string &highlight, const std::string &docType) override;

    const std::vector<Datum> &getDocIdList() const { return hits.listOf(search::DocId); }        // text
    const std::vector<Datum> &getDocContentList() const { return hits.listOf(search::Content); } // text
    const std::vector<Datum> &getScoreList() const { return hits.listOf(search::HitScore); }     // C strings
    const std::vector<Datum> &getDocTypeList() const { return hits.listOf(search::DocumentType); } // text
    const std::vector<Datum> &getHighlightList() const { return hits.listOf(search::Highlight); }  // text

    // The bytes that the hits so far and the one being read take, with what each costs beside its texts.
    size_t heldBytes() const { return hits.heldBytes() + pendingBytes(); }

    // Hands the lists over with all that they point at.
    search::Hits takeHits() { return std::move(hits); }

    // An exception that reading raised inside a callback of the transport library, whose frames it must not
    // cross: kept until the transfer has ended, then thrown on by the transport. Null when there was none.
    std::exception_ptr readFailure;

private:
    void reserve();

    search::Hits hits;
    const std::size_t expectedCount;
    const bool wantContent;
    const bool wantHighlight;
    const bool wantScore;
    const bool wantDocType;
};

} // namespace qm::pgFdw
