// Which documents a large result consists of: a few thousand that repeat, so that all of them can be at hand.
#pragma once

#include "../documents.h"

#include <cstdint>

namespace veltrane::bench
{

// After how many documents a result of that kind begins again with document 0: some 40 MB of contents, far
// more than the processor's nearer caches hold. Pages must divide it.
constexpr std::uint64_t documentsInCycle(DocumentKind kind)
{
    switch (kind) {
    case DocumentKind::Small:
        return 100'000;
    case DocumentKind::Large:
        return 2'000;
    default:
        return 20'000;
    }
}

} // namespace veltrane::bench
