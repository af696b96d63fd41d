// Time that has passed, and the middle of many times.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace veltrane::bench
{

class Stopwatch
{
public:
    // Since it was made.
    double seconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

private:
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
};

// `values` must not be empty.
inline double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace veltrane::bench
