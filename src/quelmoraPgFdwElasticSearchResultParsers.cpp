// The collectors.
#include "quelmoraPgFdwConnectorBase.h"
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace qm::pgFdw
{

SearchResultParser::SearchResultParser(PageMemory &page, int expectedCount, bool wantContent, bool wantScore,
                                       bool wantDocType, bool wantHighlight)
    : page(page), wantContent(wantContent), wantHighlight(wantHighlight), wantScore(wantScore),
      wantDocType(wantDocType)
{
    // A batch size far beyond what a search server returns must not cost its memory in advance.
    const auto capacity = static_cast<Size>(std::clamp(expectedCount, 0, 65536));
    reserve(docIds, capacity);
    if (wantContent)
        reserve(docContents, capacity);
    if (wantScore)
        reserve(scores, capacity);
    if (wantDocType)
        reserve(docTypes, capacity);
}

void SearchResultParser::reserve(DatumQueue &list, Size entries)
{
    list.reserve(entries, [this](Size size) { return takeMemory(size); });
}

void *SearchResultParser::takeMemory(Size size)
{
    collectedBytes += size;
    return page.take(size);
}

void SearchResultParser::keepText(DatumQueue &list, const std::string &value)
{
    reserve(list, 1);
    const Size size = VARHDRSZ + value.size();
    auto *copy = static_cast<varlena *>(takeMemory(size));
    SET_VARSIZE(copy, size);
    std::memcpy(VARDATA(copy), value.data(), value.size());
    list.append(PointerGetDatum(copy));
}

void SearchResultParser::keepCString(DatumQueue &list, const std::string &value)
{
    reserve(list, 1);
    void *copy = takeMemory(value.size() + 1);
    std::memcpy(copy, value.c_str(), value.size() + 1);
    list.append(PointerGetDatum(copy));
}

void SearchResultParser::onNewDocument(const std::string &docId, const std::string &content,
                                       const std::string &score, const std::string &highlight,
                                       const std::string &docType)
{
    keepText(docIds, docId);
    if (wantContent)
        keepText(docContents, content);
    if (wantHighlight)
        keepText(highlights, highlight);
    if (wantScore)
        keepCString(scores, score);
    if (wantDocType)
        keepText(docTypes, docType);
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
        pgCompat::raiseError(ERRCODE_FDW_INVALID_HANDLE, "Parsing error", __FILE__, __LINE__, __func__);
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
