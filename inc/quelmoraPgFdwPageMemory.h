// Memory for the values of one page of hits.
#pragma once

#include "quelmoraPgServer.h"

namespace qm::pgFdw
{

// Hands out memory from large blocks that lie in a server memory context, and keeps the blocks for the next
// page: a page of the same size then touches no memory that is new to the process. Plain data: whoever
// deletes the context frees all. Does not raise, so that it may be used inside a callback of libcurl.
struct PageMemory {
    // A block is this header and the bytes behind it.
    struct Block {
        Block *next;
        Size size; // of the bytes
    };

    // Must be called first, on zeroed memory. The context must outlive this.
    void attach(MemoryContext blockContext) { context = blockContext; }

    // Returns `size` bytes, aligned as palloc does, that are valid until reset. Throws std::bad_alloc.
    void *take(Size size);

    // Ends the page: its values are gone. Blocks that it did not need are given back to the server.
    void reset();

    MemoryContext context;
    Block *first;
    Block *current; // null as long as there is none
    Size used;      // of the current block

private:
    void nextBlock(Size size);
};

} // namespace qm::pgFdw
