// The collector of terms aggregations, for other code in the server's process. Needs postgres.h, as C, before
// it.
#pragma once

#include "elasticsearch/termAggResultParserInterface.h"

namespace qm::pgFdw
{

// Stores the terms aggregations of one response into two arrays of the caller's, which must live as long as
// the collector. An aggregation goes to the slot that its name tells as a decimal number, counted from 1; a
// later one of the same number replaces it.
//
// addData is [server side]: it raises the server's ERROR "Parsing error" (HV00B) for a name that tells no
// slot, and whatever the server raises for want of memory. The jump runs no destructor: call it in a PG_TRY
// block whose handler destroys the collector, with nothing else on the stack that has one. No C++ exception
// leaves it.
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
