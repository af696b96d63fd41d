// The clock that bounds what is waited for.
#pragma once

#include <chrono>

namespace qm::http
{

using Clock = std::chrono::steady_clock;

constexpr Clock::time_point Never = Clock::time_point::max();

} // namespace qm::http
