// A search cluster: where it is, and how it is spoken to.
#pragma once

#include "http/settings.h"

#include <string>
#include <tuple>
#include <vector>

namespace qm::search
{

struct Cluster {
    // Of each scheme, host, port and prefix, without a slash at the end; no credentials. At least one.
    std::vector<std::string> nodes;
    http::Settings settings;
    std::int32_t retries = 0;     // further tries of a request that failed
    bool keepsConnections = true; // for the session
    bool fetchesAhead = true;     // the next page while one is read
    bool tellsOrigin = true;      // each request says which session it comes from
};

inline bool operator==(const Cluster &one, const Cluster &other)
{
    const auto members = [](const Cluster &of) {
        return std::tie(of.nodes, of.settings, of.retries, of.keepsConnections, of.fetchesAhead,
                        of.tellsOrigin);
    };
    return members(one) == members(other);
}

} // namespace qm::search
