// Which of a cluster's nodes is asked.
#pragma once

#include "http/waiting.h"

#include <cstddef>
#include <vector>

namespace qm::search
{

// Stays with a node as long as it responds. One that did not is passed over for half a minute, unless all
// are.
class Nodes
{
public:
    explicit Nodes(std::size_t count) : passedOver(count) {}

    std::size_t count() const { return passedOver.size(); }
    // The node to ask now.
    std::size_t current();
    void passOver(std::size_t node);

private:
    std::vector<http::Clock::time_point> passedOver; // until when
    std::size_t chosen = 0;
};

} // namespace qm::search
