// What a session has with a search cluster from one query to the next.
#pragma once

#include "http/connections.h"
#include "search/cluster.h"
#include "search/nodes.h"
#include "search/statistics.h"

#include <memory>
#include <string>

namespace qm::search
{

// The connections of one user to the cluster of one foreign server, and the node that they stay with.
class ClusterSession
{
public:
    // That of this session; a new one when the catalogs say something else than what the last was made with.
    // Whoever holds one goes on with it. Throws std::bad_alloc.
    static std::shared_ptr<ClusterSession> of(Oid server, Oid user, const Cluster &cluster);

    ClusterSession(Oid server, const Cluster &cluster);

    // By what the cluster may tell in its logs and its list of tasks which session asks: application_name and
    // process id. Empty where that is not wanted.
    std::string opaqueId() const;

    // Its connections are in use now.
    void touch() noexcept { lastUse = http::Clock::now(); }

    const Cluster cluster;
    http::Connections connections;
    Nodes nodes;
    Statistics &spent; // all that was exchanged with the foreign server

private:
    http::Clock::time_point lastUse;
};

} // namespace qm::search
