// Which of a cluster's nodes is asked.
#include "search/nodes.h"

namespace qm::search
{

constexpr std::chrono::seconds Pause{30};

std::size_t Nodes::current()
{
    const http::Clock::time_point now = http::Clock::now();
    if (passedOver[chosen] <= now)
        return chosen;
    // The next one that is not passed over, else the one that was before all others.
    std::size_t best = chosen;
    for (std::size_t i = 1; i < count(); ++i) {
        const std::size_t node = (chosen + i) % count();
        if (passedOver[node] <= now) {
            best = node;
            break;
        }
        if (passedOver[node] < passedOver[best])
            best = node;
    }
    return chosen = best;
}

void Nodes::passOver(std::size_t node) { passedOver[node] = http::Clock::now() + Pause; }

} // namespace qm::search
