// Memory for the values of one page of hits.
#include "quelmoraPgFdwPageMemory.h"
#include "quelmoraPgUtils.h"

namespace qm::pgFdw
{
namespace
{

// A look-up of one document must not cost what a page of thousands costs.
constexpr Size SmallestBlock = Size{16} << 10;
constexpr Size LargestBlock = Size{1} << 20;

char *bytesOf(PageMemory::Block *block)
{
    return reinterpret_cast<char *>(block) + MAXALIGN(sizeof(PageMemory::Block));
}

} // namespace

void *PageMemory::take(Size size)
{
    size = MAXALIGN(size);
    if (!current || size > current->size - used)
        nextBlock(size);
    char *bytes = bytesOf(current) + used;
    used += size;
    return bytes;
}

void PageMemory::nextBlock(Size size)
{
    Block *next = current ? current->next : first;
    if (!next || next->size < size) {
        const Size usual = current ? Min(current->size * 2, LargestBlock) : SmallestBlock;
        const Size blockSize = Max(usual, size);
        auto *block = static_cast<Block *>(allocateOrThrow(context, MAXALIGN(sizeof(Block)) + blockSize));
        block->next = next;
        block->size = blockSize;
        (current ? current->next : first) = block;
        next = block;
    }
    current = next;
    used = 0;
}

void PageMemory::reset()
{
    if (!current)
        return;
    for (Block *block = current->next; block;) {
        Block *next = block->next;
        pfree(block);
        block = next;
    }
    current->next = nullptr;
    current = first;
    used = 0;
}

} // namespace qm::pgFdw
