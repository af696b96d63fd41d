// The collectors.
#include "quelmoraPgFdwConnectorBase.h"
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <algorithm>
#include <cstdlib>

namespace qm::pgFdw
{

// A batch size far beyond what a search server returns must not cost its memory in advance.
constexpr int MostExpected = 65536;

SearchResultParser::SearchResultParser(int expectedCount, bool wantContent, bool wantScore, bool wantDocType,
                                       bool wantHighlight)
    : expectedCount(static_cast<std::size_t>(std::clamp(expectedCount, 0, MostExpected))),
      wantContent(wantContent), wantHighlight(wantHighlight), wantScore(wantScore), wantDocType(wantDocType)
{
    reserve();
}

void SearchResultParser::collectIn(search::Hits &&memory)
{
    hits = std::move(memory);
    reserve();
}

void SearchResultParser::reserve()
{
    hits.reserve(search::DocId, expectedCount);
    if (wantContent)
        hits.reserve(search::Content, expectedCount);
    if (wantScore)
        hits.reserve(search::HitScore, expectedCount);
    if (wantDocType)
        hits.reserve(search::DocumentType, expectedCount);
}

void SearchResultParser::onNewDocument(const std::string &docId, const std::string &content,
                                       const std::string &score, const std::string &highlight,
                                       const std::string &docType)
{
    hits.keepText(search::DocId, docId);
    if (wantContent)
        hits.keepText(search::Content, content);
    if (wantHighlight)
        hits.keepText(search::Highlight, highlight);
    if (wantScore)
        hits.keepCString(search::HitScore, score);
    if (wantDocType)
        hits.keepText(search::DocumentType, docType);
}

TermAggResultParser::TermAggResultParser(int attributeCount, int compressionLevel, varlena **valueSlots,
                                         int *countSlots, bool collectValues)
    : TermAggResultParserInterface(collectValues), valueSlots(valueSlots), countSlots(countSlots),
      compressionLevel(compressionLevel), attributeCount(attributeCount), collectValues(collectValues)
{
    std::fill_n(valueSlots, attributeCount, nullptr);
    std::fill_n(countSlots, attributeCount, 0);
}

void TermAggResultParser::onAttributes(const std::string &name, int count, const std::string &values)
{
    const int number = static_cast<int>(std::strtol(name.c_str(), nullptr, 10));
    if (number < 1 || number > attributeCount)
        server::raiseError(ERRCODE_FDW_INVALID_HANDLE, {"Parsing error", nullptr, nullptr}, __FILE__,
                           __LINE__, __func__);
    countSlots[number - 1] = count;
    if (!collectValues)
        return;
    // The length that CompressData takes has fewer bits than a string may have bytes.
    if (!AllocSizeIsValid(values.size()))
        elog(ERROR, "invalid memory alloc request size %zu", values.size());
    CompressData(values.data(), static_cast<unsigned int>(values.size()), valueSlots[number - 1],
                 compressionLevel);
}

} // namespace qm::pgFdw
