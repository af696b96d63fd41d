// Finds the bytes that matter to the JSON lexer. Everything that is peculiar to a processor is in this file:
// one kernel for each instruction set, which tells what stands where in 64 bytes; the rest is common.
#include "elasticsearch/jsonBlockScan.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace zq::elasticsearch
{

namespace
{

// The bytes of each kind, wherever they stand.
struct ByteMasks {
    std::uint64_t quotes;
    std::uint64_t backslashes;
    std::uint64_t brackets;
    std::uint64_t separators;
};

// Bit 5 is all that tells [ from { and ] from }.
constexpr char BracketFold = 0x20;

// Bit i of the result is the exclusive or of the bits 0 to i.
inline std::uint64_t prefixXorByShifts(std::uint64_t bits)
{
    for (unsigned width = 1; width < 64; width *= 2)
        bits ^= bits << width;
    return bits;
}

// Eight bytes at a time in ordinary registers.
struct PortableKernel {
    static constexpr const char *name = "portable";

    template <bool withSeparators>
    static ByteMasks classify(const char *block)
    {
        ByteMasks masks{};
        for (unsigned i = 0; i < BlockBytes; i += 8) {
            const std::uint64_t bytes = load(block + i);
            const std::uint64_t folded = bytes | each(BracketFold);
            masks.quotes |= bits(equals(bytes, '"')) << i;
            masks.backslashes |= bits(equals(bytes, '\\')) << i;
            masks.brackets |= bits(equals(folded, '{') | equals(folded, '}')) << i;
            if constexpr (withSeparators)
                masks.separators |= bits(equals(bytes, ':') | equals(bytes, ',')) << i;
        }
        return masks;
    }

    static std::uint64_t prefixXor(std::uint64_t bits) { return prefixXorByShifts(bits); }

private:
    static constexpr std::uint64_t each(char byte)
    {
        return std::uint64_t{0x0101010101010101} * static_cast<unsigned char>(byte);
    }

    // The first byte becomes the lowest.
    static std::uint64_t load(const char *from)
    {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, from, sizeof bytes);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        bytes = __builtin_bswap64(bytes);
#endif
        return bytes;
    }

    // Sets the highest bit of each byte that is equal: only a zero stays below it when seven bits are added.
    static std::uint64_t equals(std::uint64_t bytes, char wanted)
    {
        const std::uint64_t different = bytes ^ each(wanted);
        return ~(((different & each(0x7F)) + each(0x7F)) | different) & each('\x80');
    }

    // Gathers the highest bits: the product brings each to its place in the highest byte.
    static std::uint64_t bits(std::uint64_t matches) { return (matches >> 7) * 0x0102040810204080 >> 56; }
};

#if defined(__x86_64__)

// Every x86-64 processor has SSE2.
struct Sse2Kernel {
    static constexpr const char *name = "SSE2";

    template <bool withSeparators>
    static ByteMasks classify(const char *block)
    {
        const auto *from = reinterpret_cast<const __m128i *>(block);
        const Parts parts = {_mm_loadu_si128(from), _mm_loadu_si128(from + 1), _mm_loadu_si128(from + 2),
                             _mm_loadu_si128(from + 3)};
        ByteMasks masks{};
        masks.quotes = bits(
            parts, [](__m128i part) { return equals(part, '"'); });
        masks.backslashes = bits(parts, [](__m128i part) { return equals(part, '\\'); });
        masks.brackets = bits(parts, [](__m128i part) {
            const __m128i folded = _mm_or_si128(part, _mm_set1_epi8(BracketFold));
            return _mm_or_si128(equals(folded, '{'), equals(folded, '}'));
        });
        if constexpr (withSeparators) {
            masks.separators = bits(
                parts, [](__m128i part) { return _mm_or_si128(equals(part, ':'), equals(part, ',')); });
        }
        return masks;
    }

    static std::uint64_t prefixXor(std::uint64_t bits) { return prefixXorByShifts(bits); }

private:
    using Parts = __m128i[4];

    static __m128i equals(__m128i bytes, char wanted) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(wanted)); }

    template <class Match>
    static std::uint64_t bits(const Parts &parts, Match match)
    {
        const auto part = [&](int i) {
            return static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(match(parts[i]))));
        };
        return part(0) | part(1) << 16 | part(2) << 32 | part(3) << 48;
    }
};

#define VELTRANE_AVX2 __attribute__((target("avx2,pclmul,bmi")))

struct Avx2Kernel {
    static constexpr const char *name = "AVX2";

    template <bool withSeparators>
    VELTRANE_AVX2 static inline ByteMasks classify(const char *block)
    {
        const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(block));
        const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(block + 32));
        ByteMasks masks{};
        masks.quotes = bits(equals(low, '"'), equals(high, '"'));
        masks.backslashes = bits(equals(low, '\\'), equals(high, '\\'));
        masks.brackets = bits(areBrackets(low), areBrackets(high));
        if constexpr (withSeparators) {
            masks.separators = bits(_mm256_or_si256(equals(low, ':'), equals(low, ',')),
                                    _mm256_or_si256(equals(high, ':'), equals(high, ',')));
        }
        return masks;
    }

    // A carry-less multiplication by all ones is the prefix.
    VELTRANE_AVX2 static inline std::uint64_t prefixXor(std::uint64_t bits)
    {
        const __m128i product = _mm_clmulepi64_si128(_mm_set_epi64x(0, static_cast<long long>(bits)),
                                                     _mm_set1_epi8(static_cast<char>(0xFF)), 0);
        return static_cast<std::uint64_t>(_mm_cvtsi128_si64(product));
    }

private:
    VELTRANE_AVX2 static inline __m256i equals(__m256i bytes, char wanted)
    {
        return _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(wanted));
    }
    VELTRANE_AVX2 static inline __m256i areBrackets(__m256i bytes)
    {
        const __m256i folded = _mm256_or_si256(bytes, _mm256_set1_epi8(BracketFold));
        return _mm256_or_si256(equals(folded, '{'), equals(folded, '}'));
    }
    VELTRANE_AVX2 static inline std::uint64_t bits(__m256i low, __m256i high)
    {
        return static_cast<unsigned>(_mm256_movemask_epi8(low)) |
               static_cast<std::uint64_t>(static_cast<unsigned>(_mm256_movemask_epi8(high))) << 32;
    }
};

#elif defined(__aarch64__)

// Every 64-bit ARM processor has NEON.
struct NeonKernel {
    static constexpr const char *name = "NEON";

    template <bool withSeparators>
    static ByteMasks classify(const char *block)
    {
        const auto *from = reinterpret_cast<const std::uint8_t *>(block);
        const uint8x16x4_t bytes = {
            {vld1q_u8(from), vld1q_u8(from + 16), vld1q_u8(from + 32), vld1q_u8(from + 48)}};
        ByteMasks masks{};
        masks.quotes = bits(
            bytes, [](uint8x16_t part) { return equals(part, '"'); });
        masks.backslashes = bits(bytes, [](uint8x16_t part) { return equals(part, '\\'); });
        masks.brackets = bits(bytes, [](uint8x16_t part) {
            const uint8x16_t folded = vorrq_u8(part, vdupq_n_u8(BracketFold));
            return vorrq_u8(equals(folded, '{'), equals(folded, '}'));
        });
        if constexpr (withSeparators) {
            masks.separators = bits(
                bytes, [](uint8x16_t part) { return vorrq_u8(equals(part, ':'), equals(part, ',')); });
        }
        return masks;
    }

    static std::uint64_t prefixXor(std::uint64_t bits) { return prefixXorByShifts(bits); }

private:
    static uint8x16_t equals(uint8x16_t bytes, char wanted)
    {
        return vceqq_u8(bytes, vdupq_n_u8(static_cast<std::uint8_t>(wanted)));
    }

    template <class Match>
    static std::uint64_t bits(const uint8x16x4_t &bytes, Match match)
    {
        static constexpr std::uint8_t Weights[16] = {1, 2, 4, 8, 16, 32, 64, 128,
                                                     1, 2, 4, 8, 16, 32, 64, 128};
        const uint8x16_t weight = vld1q_u8(Weights);
        const auto weighed = [&](int part) { return vandq_u8(match(bytes.val[part]), weight); };
        const uint8x16_t pairs =
            vpaddq_u8(vpaddq_u8(weighed(0), weighed(1)), vpaddq_u8(weighed(2), weighed(3)));
        return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(pairs, pairs)), 0);
    }
};

#endif

// The bytes behind the backslashes that are not escaped themselves, and the carry for the next block. Of a
// run of backslashes the first, third and so on escape: what follows the run is escaped when its length is
// odd. Adding a run's first bit to the run moves it to the bit behind the run.
inline std::uint64_t findEscaped(std::uint64_t backslashes, BlockCarry &carry)
{
    constexpr std::uint64_t EvenBits = 0x5555555555555555;
    const std::uint64_t firstEscaped = carry.escaped;
    backslashes &= ~firstEscaped;
    const std::uint64_t starts = backslashes & ~(backslashes << 1);
    const std::uint64_t behindEvenRuns = (backslashes + (starts & EvenBits)) & ~backslashes;
    std::uint64_t sum = 0;
    carry.escaped = __builtin_add_overflow(backslashes, starts & ~EvenBits, &sum) ? 1 : 0;
    const std::uint64_t behindOddRuns = sum & ~backslashes;
    return firstEscaped | (behindEvenRuns & ~EvenBits) | (behindOddRuns & EvenBits);
}

// `length` tells how many of the block's bytes are text; the others must be zero.
template <class Kernel, bool withSeparators>
[[gnu::always_inline]] inline BlockMasks scanBlock(const char *block, std::size_t length, BlockCarry &carry)
{
    const ByteMasks bytes = Kernel::template classify<withSeparators>(block);
    std::uint64_t quotes = bytes.quotes;
    if ((bytes.backslashes | carry.escaped) != 0) {
        const std::uint64_t escaped = findEscaped(bytes.backslashes, carry);
        quotes &= ~escaped;
        if (length < BlockBytes)
            carry.escaped = escaped >> length & 1;
    }
    const std::uint64_t inString = Kernel::prefixXor(quotes) ^ carry.inString;
    carry.inString = 0 - (inString >> (BlockBytes - 1));
    return {quotes & inString, quotes & ~inString, bytes.brackets & ~inString, bytes.separators & ~inString};
}

template <class Kernel, bool withSeparators>
[[gnu::always_inline]] inline void scanBlocks(const char *bytes, std::size_t length, BlockCarry &carry,
                                              BlockMasks *masks)
{
    BlockCarry current = carry;
    for (; length >= BlockBytes; bytes += BlockBytes, length -= BlockBytes)
        *masks++ = scanBlock<Kernel, withSeparators>(bytes, BlockBytes, current);
    if (length > 0) {
        char block[BlockBytes] = {};
        std::memcpy(block, bytes, length);
        *masks = scanBlock<Kernel, withSeparators>(block, length, current);
    }
    carry = current;
}

template <class Kernel, bool withSeparators>
void scan(const char *bytes, std::size_t length, BlockCarry &carry, BlockMasks *masks)
{
    scanBlocks<Kernel, withSeparators>(bytes, length, carry, masks);
}

template <class Kernel>
constexpr BlockScanner scannerOf()
{
    return {Kernel::name, scan<Kernel, false>, scan<Kernel, true>};
}

#if defined(__x86_64__)

// A function that may use instructions beyond the baseline has to say so itself.
template <bool withSeparators>
VELTRANE_AVX2 __attribute__((flatten)) void scanAvx2(const char *bytes, std::size_t length, BlockCarry &carry,
                                                     BlockMasks *masks)
{
    scanBlocks<Avx2Kernel, withSeparators>(bytes, length, carry, masks);
}

bool hasAvx2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul") &&
           __builtin_cpu_supports("bmi");
}

#endif

std::vector<BlockScanner> findScanners()
{
    std::vector<BlockScanner> scanners;
#if defined(__x86_64__)
    if (hasAvx2())
        scanners.push_back({Avx2Kernel::name, scanAvx2<false>, scanAvx2<true>});
    scanners.push_back(scannerOf<Sse2Kernel>());
#elif defined(__aarch64__)
    scanners.push_back(scannerOf<NeonKernel>());
#endif
    scanners.push_back(scannerOf<PortableKernel>());
    return scanners;
}

} // namespace

const std::vector<BlockScanner> &blockScanners()
{
    static const std::vector<BlockScanner> scanners = findScanners();
    return scanners;
}

} // namespace zq::elasticsearch
