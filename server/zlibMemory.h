// The memory of zlib's streams, taken from the server.
#pragma once

#include "server/serverApi.h"

#include <zlib.h>

namespace qm::server
{

// Has zlib allocate the state of `stream`, which is to be initialised next, in `context`; it is freed with
// the context at the latest. zlib takes null for failure, so nothing is raised through its frames.
inline void allocateIn(MemoryContext context, z_stream &stream)
{
    stream.zalloc = [](void *from, unsigned int items, unsigned int size) {
        return MemoryContextAllocExtended(static_cast<MemoryContext>(from), static_cast<Size>(items) * size,
                                          MCXT_ALLOC_HUGE | MCXT_ALLOC_NO_OOM);
    };
    stream.zfree = [](void *, void *memory) { pfree(memory); };
    stream.opaque = context;
}

} // namespace qm::server
