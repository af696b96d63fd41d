// Finds the bytes that matter to the JSON lexer, 64 at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zq::elasticsearch
{

constexpr std::size_t BlockBytes = 64;

// What stands where in a block; bit i tells of byte i. Bits behind the end of the text are 0.
struct BlockMasks {
    std::uint64_t opening;    // quotes that open a string
    std::uint64_t closing;    // quotes that close one; a quote behind a backslash does neither
    std::uint64_t brackets;   // [ ] { } outside strings
    std::uint64_t separators; // : and , outside strings; 0 where they were not asked for
};

// What the blocks before one have to tell it.
struct BlockCarry {
    std::uint64_t escaped = 0;  // 1: the next byte stands behind a backslash that is not escaped itself
    std::uint64_t inString = 0; // all ones: the next byte is inside a string
};

// Scans `length` bytes, in blocks of which only the last may be incomplete, and continues from `carry`.
using BlockScan = void (*)(const char *bytes, std::size_t length, BlockCarry &carry, BlockMasks *masks);

// One way of scanning. All of them find the same.
struct BlockScanner {
    const char *name;
    BlockScan brackets;   // leaves the separators out
    BlockScan separators; // finds them too
};

// Those that this processor can run, the fastest first, the portable one last.
const std::vector<BlockScanner> &blockScanners();

} // namespace zq::elasticsearch
