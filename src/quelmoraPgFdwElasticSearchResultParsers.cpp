// The collectors.
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <algorithm>

namespace qm::pgFdw
{

SearchResultParser::SearchResultParser(int expectedCount, bool wantContent, bool wantScore, bool wantDocType,
                                       bool wantHighlight)
    : wantContent(wantContent), wantHighlight(wantHighlight), wantScore(wantScore), wantDocType(wantDocType)
{
    // A batch size far beyond what a search server returns must not cost its memory in advance; a negative
    // one stays the error that it is.
    const auto capacity = static_cast<size_t>(std::min(expectedCount, 65536));
    docIds.reserve(capacity);
    if (wantContent)
        docContents.reserve(capacity);
    if (wantScore)
        scores.reserve(capacity);
    if (wantDocType)
        docTypes.reserve(capacity);
}

void SearchResultParser::onNewDocument(const std::string &docId, const std::string &content,
                                       const std::string &score, const std::string &highlight,
                                       const std::string &docType)
{
    docIds.push_back(docId);
    if (wantContent)
        docContents.push_back(content);
    if (wantHighlight)
        highlights.push_back(highlight);
    if (wantScore)
        scores.push_back(score);
    if (wantDocType)
        docTypes.push_back(docType);
}

} // namespace qm::pgFdw
