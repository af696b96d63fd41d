// Memory for the values of one page of hits.
#include "search/arena.h"

#include <algorithm>

namespace qm::search
{
namespace
{

// A look-up of one document must not cost what a page of thousands costs.
constexpr std::size_t SmallestBlock = std::size_t{16} << 10;
constexpr std::size_t LargestBlock = std::size_t{1} << 20;

std::size_t aligned(std::size_t size)
{
    constexpr std::size_t Alignment = alignof(std::max_align_t);
    return (size + Alignment - 1) / Alignment * Alignment;
}

} // namespace

void *Arena::take(std::size_t size)
{
    size = aligned(size);
    if (current == blocks.size() || size > blocks[current].size - used)
        openBlock(size);
    char *bytes = blocks[current].bytes.get() + used;
    used += size;
    return bytes;
}

void Arena::openBlock(std::size_t size)
{
    const std::size_t next = blocks.empty() ? 0 : current + 1;
    if (next == blocks.size() || blocks[next].size < size) {
        const std::size_t usual =
            blocks.empty() ? SmallestBlock : std::min(blocks[current].size * 2, LargestBlock);
        const std::size_t blockSize = std::max(usual, size);
        blocks.insert(blocks.begin() + static_cast<std::ptrdiff_t>(next),
                      Block{std::unique_ptr<char[]>(new char[blockSize]), blockSize});
    }
    current = next;
    used = 0;
}

void Arena::reset()
{
    if (blocks.empty())
        return;
    blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(current) + 1, blocks.end());
    current = 0;
    used = 0;
}

} // namespace qm::search
