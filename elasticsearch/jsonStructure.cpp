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
    blocks.resize(all - firstBlock);
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
    if (block <= firstBlock || block - firstBlock < blocks.size() / 2)
        return;
    const std::size_t forgotten = std::min(block, completeBlocks) - firstBlock;
    blocks.erase(blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(forgotten));
    firstBlock += forgotten;
}

void JsonStructure::clear()
{
    blocks.clear();
    firstBlock = completeBlocks = 0;
    carry = {};
}

} // namespace zq::elasticsearch
