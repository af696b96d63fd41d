// The collectors.
#include "quelmoraPgFdwConnectorBase.h"
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <algorithm>
#include <cstdlib>

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

void SearchResultParser::keep(std::vector<std::string> &list, const std::string &value)
{
    list.push_back(value);
    collectedBytes += value.size() + sizeof(std::string);
}

void SearchResultParser::onNewDocument(const std::string &docId, const std::string &content,
                                       const std::string &score, const std::string &highlight,
                                       const std::string &docType)
{
    keep(docIds, docId);
    if (wantContent)
        keep(docContents, content);
    if (wantHighlight)
        keep(highlights, highlight);
    if (wantScore)
        keep(scores, score);
    if (wantDocType)
        keep(docTypes, docType);
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
        throw FdwError(ERRCODE_FDW_INVALID_HANDLE, "Parsing error");
    countSlots[number - 1] = count;
    if (!collectValues)
        return;
    callServer([&] {
        // The length that CompressData takes has fewer bits than a string may have bytes.
        if (!AllocSizeIsValid(values.size()))
            elog(ERROR, "invalid memory alloc request size %zu", values.size());
        CompressData(values.data(), static_cast<unsigned int>(values.size()), valueSlots[number - 1],
                     compressionLevel);
    });
}

} // namespace qm::pgFdw
