// The collectors: readers of answers that keep what the caller asked for.
#pragma once

#include "searchResultParserInterface.h"
#include "termAggResultParserInterface.h"

#include <exception>
#include <string>
#include <vector>

struct varlena; // the server's; its headers are not needed to read search answers

namespace qm::pgFdw
{

// Collects the hits of one answer into one list per wanted column; entry i of every filled list belongs to
// hit i. Owns all strings. The values are as the reader hands them over: the id decoded, all else raw JSON.
class SearchResultParser : public zq::elasticsearch::SearchResultParserInterface
{
public:
    // `expectedCount` only sizes the lists; more hits are welcome. Throws std::length_error when negative.
    SearchResultParser(int expectedCount, bool wantContent, bool wantScore, bool wantDocType,
                       bool wantHighlight);

    void onNewDocument(const std::string &docId, const std::string &content, const std::string &score,
                       const std::string &highlight, const std::string &docType) override;

    const std::vector<std::string> &getDocIdList() const { return docIds; }
    const std::vector<std::string> &getDocContentList() const { return docContents; }
    const std::vector<std::string> &getScoreList() const { return scores; }
    const std::vector<std::string> &getDocTypeList() const { return docTypes; }
    const std::vector<std::string> &getHighlightList() const { return highlights; }

    // The bytes that the hits so far and the one being read take, with what each costs beside its texts.
    size_t heldBytes() const { return collectedBytes + pendingBytes(); }

    // An exception that reading raised inside a callback of the transport library, whose frames it must not
    // cross: kept until the transfer has ended, then thrown on by the transport. Null when there was none.
    std::exception_ptr readFailure;

private:
    void keep(std::vector<std::string> &list, const std::string &value);

    std::vector<std::string> docIds;
    std::vector<std::string> docContents;
    std::vector<std::string> highlights;
    std::vector<std::string> scores;
    std::vector<std::string> docTypes;
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
// addData throws FdwError "Parsing error" (HV00B) for a name that tells no slot, and ServerError when there
// is no memory for a value; inside the server, call it within guardEntry.
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
