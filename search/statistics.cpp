// What exchanges with a search cluster have cost.
#include "search/statistics.h"

#include <map>

namespace qm::search
{
namespace
{

std::map<Oid, Statistics> &ofSession()
{
    static auto *servers = new std::map<Oid, Statistics>; // never destroyed, like all that a session has
    return *servers;
}

} // namespace

Statistics &totalOfServer(Oid server) { return ofSession()[server]; }

Statistics statisticsOfServer(Oid server) noexcept
{
    const auto found = ofSession().find(server);
    return found == ofSession().end() ? Statistics() : found->second;
}

void resetStatistics() noexcept
{
    for (auto &[server, statistics] : ofSession())
        statistics = Statistics();
}

} // namespace qm::search
