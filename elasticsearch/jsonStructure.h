// What stands where in a JSON text that lies in one piece and may still grow: the lexer of the readers that
// keep the text.
#pragma once

#include "elasticsearch/jsonBlockScan.h"

#include <cstddef>
#include <string_view>
#include <vector>

namespace zq::elasticsearch
{

// Finds the quotes and brackets of a text. Each byte is scanned once.
class JsonStructure
{
public:
    static constexpr std::size_t NoPosition = std::string_view::npos;

    explicit JsonStructure(const BlockScanner &scanner = blockScanners().front());

    // Takes in that the text has `length` bytes by now. It may have moved, but what was there before is the
    // same. Throws std::bad_alloc.
    void extend(const char *text, std::size_t length);
    // Forgets what stands before the position: it is not asked for any more.
    void forgetBefore(std::size_t position);
    // Starts over with another text.
    void clear();

    // The first place from `position` on of a quote that closes a string; NoPosition when there is none yet.
    std::size_t nextClosingQuote(std::size_t position) const;

    // Calls take(position) for each bracket outside strings from `position` on, until it returns true;
    // returns whether it did.
    template <typename Take>
    bool findBracket(std::size_t position, Take &&take) const;

private:
    const BlockScanner *scanner;
    std::vector<BlockMasks> blocks; // room for them, which only grows
    std::size_t count = 0;          // how many are known, of which the last may be of an incomplete one
    std::size_t firstBlock = 0;     // the number of the first of them in the text
    std::size_t completeBlocks = 0; // how many of the text's blocks are scanned for good
    BlockCarry carry;               // behind those
};

inline std::size_t JsonStructure::nextClosingQuote(std::size_t position) const
{
    std::size_t block = position / BlockBytes - firstBlock;
    if (block >= count)
        return NoPosition;
    std::uint64_t bits = blocks[block].closing & ~std::uint64_t{0} << position % BlockBytes;
    while (bits == 0) {
        if (++block == count)
            return NoPosition;
        bits = blocks[block].closing;
    }
    return (firstBlock + block) * BlockBytes + static_cast<std::size_t>(__builtin_ctzll(bits));
}

template <typename Take>
inline bool JsonStructure::findBracket(std::size_t position, Take &&take) const
{
    std::size_t block = position / BlockBytes - firstBlock;
    if (block >= count)
        return false;
    std::uint64_t bits = blocks[block].brackets & ~std::uint64_t{0} << position % BlockBytes;
    for (;;) {
        const std::size_t begin = (firstBlock + block) * BlockBytes;
        for (; bits != 0; bits &= bits - 1)
            if (take(begin + static_cast<std::size_t>(__builtin_ctzll(bits))))
                return true;
        if (++block == count)
            return false;
        bits = blocks[block].brackets;
    }
}

} // namespace zq::elasticsearch
