// Finds the next byte that matters to the JSON lexer. The one place that may use the processor's vector
// instructions; the portable loop gives the same answers everywhere.
#pragma once

#include <array>
#include <cstddef>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zq::elasticsearch::byteScan
{

/// The sets of bytes that can be searched for; each contains the one before it.
enum class ByteSet : unsigned char {
    StringEnds = 1, ///< double quote and backslash
    Brackets = 2,   ///< also [ ] { }
    Members = 4,    ///< also : and ,
};

namespace detail
{

constexpr std::array<unsigned char, 256> makeMembership()
{
    std::array<unsigned char, 256> table{};
    for (unsigned char byte : {'"', '\\'})
        table[byte] = 1 | 2 | 4;
    for (unsigned char byte : {'[', ']', '{', '}'})
        table[byte] = 2 | 4;
    for (unsigned char byte : {':', ','})
        table[byte] = 4;
    return table;
}

inline constexpr std::array<unsigned char, 256> membership = makeMembership();

} // namespace detail

/// Returns the first byte of [at, end) that belongs to the set, or end. One byte at a time.
template <ByteSet set>
const char *findPortably(const char *at, const char *end)
{
    while (at != end &&
           (detail::membership[static_cast<unsigned char>(*at)] & static_cast<unsigned char>(set)) == 0) {
        ++at;
    }
    return at;
}

#ifdef __SSE2__

namespace detail
{

/// Returns a bit for each of the sixteen bytes, set where the byte belongs to the set.
template <ByteSet set>
unsigned matchBlock(const char *block)
{
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block));
    const auto equals = [](__m128i values, char wanted) {
        return _mm_cmpeq_epi8(values, _mm_set1_epi8(wanted));
    };
    __m128i matches = _mm_or_si128(equals(bytes, '"'), equals(bytes, '\\'));
    if constexpr (set != ByteSet::StringEnds) {
        // Bit 5 is all that tells [ from { and ] from }.
        const __m128i folded = _mm_or_si128(bytes, _mm_set1_epi8(0x20));
        matches = _mm_or_si128(matches, _mm_or_si128(equals(folded, '{'), equals(folded, '}')));
    }
    if constexpr (set == ByteSet::Members) {
        matches = _mm_or_si128(matches, _mm_or_si128(equals(bytes, ':'), equals(bytes, ',')));
    }
    return static_cast<unsigned>(_mm_movemask_epi8(matches));
}

} // namespace detail

#endif

/// Returns the first byte of [at, end) that belongs to the set, or end.
template <ByteSet set>
const char *find(const char *at, const char *end)
{
#ifdef __SSE2__
    for (; end - at >= 16; at += 16) {
        if (const unsigned matches = detail::matchBlock<set>(at)) {
            return at + __builtin_ctz(matches);
        }
    }
#endif
    return findPortably<set>(at, end);
}

} // namespace zq::elasticsearch::byteScan
