// A node of a search cluster that a check asks.
#pragma once

#include "functions/checkReport.h"
#include "search/response.h"

#include <memory>
#include <optional>
#include <string>

namespace qm::functions
{

// Asks this node alone, and once, on a connection of its own that it keeps; in no more time than a check
// takes for a node, whatever the options say.
class CheckedNode
{
public:
    // `url` is one of the cluster's nodes. Throws std::bad_alloc.
    CheckedNode(Oid server, search::Cluster cluster, const std::string &url);

    const search::Cluster &cluster() const { return session->cluster; }
    // The URL, in the encoding of the database.
    std::string name() const;

    // As search::attempt and search::ask do.
    search::Response attempt(http::Request request);
    search::Response ask(http::Request request);

private:
    std::shared_ptr<search::ClusterSession> session;
    http::Clock::duration left; // of the time for all requests
};

// The response to a GET of the path. Where it is none that tells, a row says why: with the privilege that the
// credentials lack, as a version of the cluster that does not know the path, or as a failure.
std::optional<search::Response> lookAt(CheckedNode &node, Report &report, const std::string &what,
                                       const std::string &path, const char *privilege);

} // namespace qm::functions
