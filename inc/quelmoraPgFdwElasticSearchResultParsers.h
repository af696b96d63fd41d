// The collectors: readers of answers that keep what the caller asked for.
#pragma once

#include "quelmoraPgFdwDatumQueue.h"
#include "quelmoraPgFdwPageMemory.h"
#include "searchResultParserInterface.h"
#include "termAggResultParserInterface.h"

#include <exception>
#include <string>

namespace qm::pgFdw
{

// Collects the hits of one answer into one list per wanted column; entry i of every filled list belongs to
// hit i. Each value is copied once, to where the rows will take it from. The values are as the reader hands
// them over: the id decoded, all else raw JSON, all in UTF-8. Reading throws std::bad_alloc, and raises
// nothing.
class SearchResultParser : public zq::elasticsearch::SearchResultParserInterface
{
public:
    // `page` holds the values and the lists, also after the collector is gone. `expectedCount` only sizes the
    // lists; more hits are welcome.
    SearchResultParser(PageMemory &page, int expectedCount, bool wantContent, bool wantScore,
                       bool wantDocType, bool wantHighlight);

    void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                       const std::string &highlight, const std::string &docType) override;

    const DatumQueue &getDocIdList() const { return docIds; }           // text
    const DatumQueue &getDocContentList() const { return docContents; } // text
    const DatumQueue &getScoreList() const { return scores; }           // C strings
    const DatumQueue &getDocTypeList() const { return docTypes; }       // text
    const DatumQueue &getHighlightList() const { return highlights; }   // text

    // The bytes that the hits so far and the one being read take, with what each costs beside its texts.
    size_t heldBytes() const { return collectedBytes + pendingBytes(); }

    // An exception that reading raised inside a callback of the transport library, whose frames it must not
    // cross: kept until the transfer has ended, then thrown on by the transport. Null when there was none.
    std::exception_ptr readFailure;

private:
    void keepText(DatumQueue &list, const std::string &value);
    void keepCString(DatumQueue &list, const std::string &value);
    void reserve(DatumQueue &list, Size entries);
    void *takeMemory(Size size);

    PageMemory &page;
    DatumQueue docIds{};
    DatumQueue docContents{};
    DatumQueue highlights{};
    DatumQueue scores{};
    DatumQueue docTypes{};
    size_t collectedBytes = 0;
    const bool wantContent;
    const bool wantHighlight;
    const bool wantScore;
    const bool wantDocType;
};

// Stores the terms aggregations of one answer into two arrays of the caller's, which must live as long as the
// collector. An aggregation goes to the slot that its name tells as a decimal number, counted from 1; a later
// one of the same number replaces it.
//
// addData is [server side]: it raises the server's ERROR "Parsing error" (HV00B) for a name that tells no slot, and
// whatever the server raises for want of memory. The jump runs no destructor: call it in a PG_TRY block whose
// handler destroys the collector, with nothing else on the stack that has one. No C++ exception leaves it.
class VELTRANE_EXPORT TermAggResultParser : public zq::elasticsearch::TermAggResultParserInterface
{
public:
    // Both arrays have `attributeCount` entries, which are set to null and 0. With `collectValues` the keys
    // are stored too, as a JSON array that CompressData packs at `compressionLevel` into a bytea (null when
    // zlib fails) in the memory context that is current during addData.
    TermAggResultParser(int attributeCount, int compressionLevel, varlena **valueSlots, int *countSlots,
                        bool collectValues);

    void onAttributes(const std::string &name, int count, const std::string &values) override;

private:
    varlena **const valueSlots;
    int *const countSlots;
    const int compressionLevel;
    const int attributeCount;
    const bool collectValues;
};

} // namespace qm::pgFdw
