// What stands where in a JSON text that lies in one piece and may still grow.
#include "elasticsearch/jsonStructure.h"

#include <algorithm>

namespace zq::elasticsearch
{

JsonStructure::JsonStructure(const BlockScanner &scanner) : scanner(&scanner) {}

void JsonStructure::extend(const char *text, std::size_t length)
{
    const std::size_t complete = length / BlockBytes;
    const std::size_t all = (length + BlockBytes - 1) / BlockBytes;
    count = all - firstBlock;
    if (count > blocks.size())
        blocks.resize(std::max(count, 2 * blocks.size()));
    BlockMasks *masks = blocks.data() + (completeBlocks - firstBlock);
    const char *const from = text + completeBlocks * BlockBytes;
    if (complete > completeBlocks) {
        scanner->brackets(from, (complete - completeBlocks) * BlockBytes, carry, masks);
        masks += complete - completeBlocks;
        completeBlocks = complete;
    }
    if (all > complete) {
        BlockCarry passing = carry; // the block is scanned again when there is more of it
        scanner->brackets(text + complete * BlockBytes, length % BlockBytes, passing, masks);
    }
}

void JsonStructure::forgetBefore(std::size_t position)
{
    const std::size_t block = position / BlockBytes;
    // Moving the rest to the front is worth it where that is the smaller part.
    if (block <= firstBlock || block - firstBlock < count / 2)
        return;
    const std::size_t forgotten = std::min(block, completeBlocks) - firstBlock;
    std::copy(blocks.data() + forgotten, blocks.data() + count, blocks.data());
    count -= forgotten;
    firstBlock += forgotten;
}

void JsonStructure::clear()
{
    count = firstBlock = completeBlocks = 0;
    carry = {};
}

} // namespace zq::elasticsearch
