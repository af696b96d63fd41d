// Memory for the values of one page of hits.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace qm::search
{

// Hands out memory from large blocks and keeps the blocks for the next page: a page of the same size then
// touches no memory that is new to the process. On the C++ heap, so that it may be filled inside a callback
// of libcurl.
class Arena
{
public:
    // Returns `size` bytes, aligned for any type, that are valid until reset. Throws std::bad_alloc.
    void *take(std::size_t size);

    // Everything taken is gone. Blocks that it did not need are given back.
    void reset();

private:
    struct Block {
        std::unique_ptr<char[]> bytes;
        std::size_t size;
    };

    void openBlock(std::size_t size);

    std::vector<Block> blocks;
    std::size_t current = 0; // of the blocks; as many as there are when none is open
    std::size_t used = 0;    // bytes of the current block
};

} // namespace qm::search
