// What a session has with a search cluster from one query to the next.
#include "server/errorBoundary.h"

#include "search/clusterSession.h"

#include <algorithm>
#include <map>

namespace qm::search
{
namespace
{

// So long may what nobody uses keep its connections.
constexpr std::chrono::minutes LongestRest{1};

} // namespace

ClusterSession::ClusterSession(Oid server, const Cluster &cluster)
    : cluster(cluster),
      connections(cluster.settings, cluster.keepsConnections ? http::Reuse::Kept : http::Reuse::None),
      nodes(cluster.nodes.size()), spent(totalOfServer(server)), lastUse(http::Clock::now())
{
}

std::shared_ptr<ClusterSession> ClusterSession::of(Oid server, Oid user, const Cluster &cluster)
{
    using Sessions = std::map<std::pair<Oid, Oid>, std::shared_ptr<ClusterSession>>;
    static auto *sessions = new Sessions; // never destroyed: libcurl may be gone when static objects are
    const http::Clock::time_point now = http::Clock::now();
    for (auto next = sessions->begin(); next != sessions->end();) {
        const auto session = next++;
        if (session->second.use_count() == 1 && session->second->lastUse + LongestRest < now)
            sessions->erase(session);
    }
    std::shared_ptr<ClusterSession> &session = (*sessions)[{server, user}];
    if (!session || !(session->cluster == cluster))
        session = std::make_shared<ClusterSession>(server, cluster);
    session->touch();
    return session;
}

std::string ClusterSession::opaqueId() const
{
    if (!cluster.tellsOrigin)
        return "";
    std::string id = application_name ? application_name : "";
    std::replace_if(
        id.begin(), id.end(), [](char each) { return each < ' ' || each > '~'; }, '?');
    return id + "[" + std::to_string(MyProcPid) + "]";
}

} // namespace qm::search
