// A node of a search cluster that a check asks.
#include "functions/checkedNode.h"

#include <algorithm>

namespace qm::functions
{

using search::Response;

namespace
{

constexpr std::int32_t LongestConnectMs = 10000;
constexpr std::int32_t LongestMs = 30000; // of all requests to a node

// No mapping is as long, and a check is not to take all memory.
constexpr std::size_t MostBytes = std::size_t{256} << 20;

// The part of it that is looked at.
search::Cluster narrowed(search::Cluster cluster, const std::string &url)
{
    cluster.nodes = {url};
    cluster.retries = 0;
    cluster.keepsConnections = true;
    std::int32_t &timeout = cluster.settings.timeoutMs;
    timeout = timeout > 0 ? std::min(timeout, LongestMs) : LongestMs;
    cluster.settings.connectTimeoutMs = std::min(cluster.settings.connectTimeoutMs, LongestConnectMs);
    return cluster;
}

} // namespace

CheckedNode::CheckedNode(Oid server, search::Cluster cluster, const std::string &url)
    : session(std::make_shared<search::ClusterSession>(server, narrowed(std::move(cluster), url))),
      left(std::chrono::milliseconds(LongestMs))
{
}

std::string CheckedNode::name() const { return search::quoted(cluster().nodes[0]); }

Response CheckedNode::attempt(http::Request request)
{
    const http::Clock::time_point begin = http::Clock::now();
    Response response = search::attempt(session, std::move(request), {begin + left, MostBytes});
    left -= http::Clock::now() - begin;
    return response;
}

Response CheckedNode::ask(http::Request request)
{
    Response response = attempt(std::move(request));
    if (response.outcome.code != CURLE_OK)
        throw search::transferFailure(response.request, response.outcome);
    return response;
}

std::optional<Response> lookAt(CheckedNode &node, Report &report, const std::string &what,
                               const std::string &path, const char *privilege)
{
    Response response;
    if (!report.survives(what, [&] { response = node.ask({http::Method::Get, path, ""}); }))
        return std::nullopt;
    switch (response.outcome.status) {
    case 200:
        return response;
    case 401:
    case 403:
        report.add(Verdict::Unknown, what, "The credentials do not allow to look.",
                   std::string("The ") + privilege + " of the cluster allows it; no query needs that.");
        break;
    case 400:
    case 404:
    case 405:
    case 410:
        report.add(Verdict::Unknown, what, "The cluster does not tell.",
                   "Its version, or what stands before it, has no such path; no query needs it.");
        break;
    default:
        report.wrong(what, search::refusal(response.request, response.outcome, response.body));
    }
    return std::nullopt;
}

} // namespace qm::functions
