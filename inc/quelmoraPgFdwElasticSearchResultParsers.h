// The collectors: readers of search answers that keep what a scan asked for.
#pragma once

#include "searchResultParserInterface.h"

#include <exception>
#include <string>
#include <vector>

namespace qm::pgFdw
{

// Collects the hits of one answer into one list per wanted column; entry i of every filled list belongs to
// hit i. Owns all strings. The values are as the reader hands them over: the id decoded, all else raw JSON.
class SearchResultParser : public zq::elasticsearch::SearchResultParserInterface
{
public:
    // `expectedCount` only sizes the lists; more hits are welcome. Throws std::length_error when negative.
    SearchResultParser(int expectedCount, bool wantContent, bool wantScore, bool wantDocType, bool wantHighlight);

    void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                       const std::string &highlight, const std::string &docType) override;

    const std::vector<std::string> &getDocIdList() const { return docIds; }
    const std::vector<std::string> &getDocContentList() const { return docContents; }
    const std::vector<std::string> &getScoreList() const { return scores; }
    const std::vector<std::string> &getDocTypeList() const { return docTypes; }
    const std::vector<std::string> &getHighlightList() const { return highlights; }

    // An exception that reading raised inside a callback of the transport library, whose frames it must not
    // cross: kept until the transfer has ended, then thrown on by the transport. Null when there was none.
    std::exception_ptr readFailure;

private:
    std::vector<std::string> docIds;
    std::vector<std::string> docContents;
    std::vector<std::string> highlights;
    std::vector<std::string> scores;
    std::vector<std::string> docTypes;
    const bool wantContent;
    const bool wantHighlight;
    const bool wantScore;
    const bool wantDocType;
};

} // namespace qm::pgFdw
