// Helpers of the server's side, under the names by which they are known.
#pragma once

#include "server/byteValues.h"

namespace qm::pgFdw
{

// [server side] Allocates a bytea of `payloadSize` bytes in the current memory context, sets its length word
// and stores it in `destination`; the payload is not initialised. Raises 53200 when there is no memory.
inline void allocateBytea(Size payloadSize, varlena *&destination)
{
    server::allocateBytes(payloadSize, destination);
}

} // namespace qm::pgFdw
