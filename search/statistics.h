// What exchanges with a search cluster have cost.
#pragma once

#include "server/serverApi.h"

#include <cstdint>

namespace qm::search
{

struct Statistics {
    std::int64_t requests = 0;
    std::int64_t pages = 0;
    std::int64_t hits = 0;
    std::int64_t bytes = 0; // of the bodies of responses, as they came over the wire
    std::int64_t retries = 0;
    std::int64_t openedConnections = 0;
    std::int64_t reusedConnections = 0; // requests that went out on a connection that was there
    double waitedMs = 0;
    double deflatedMs = 0; // compressing values

    void add(const Statistics &other)
    {
        requests += other.requests;
        pages += other.pages;
        hits += other.hits;
        bytes += other.bytes;
        retries += other.retries;
        openedConnections += other.openedConnections;
        reusedConnections += other.reusedConnections;
        waitedMs += other.waitedMs;
        deflatedMs += other.deflatedMs;
    }
};

// Where all that this session exchanges with a foreign server is added up. The reference stays good. Throws
// std::bad_alloc.
Statistics &totalOfServer(Oid server);

// That total, since the session began or was last reset; all zero for a server that it has not asked.
Statistics statisticsOfServer(Oid server) noexcept;
void resetStatistics() noexcept;

} // namespace qm::search
