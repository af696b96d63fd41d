// What a cluster has that can be imported as a table.
#pragma once

#include "extension/remoteIndices.h"

#include <map>
#include <string>
#include <vector>

namespace qm::extension
{

class IndexPattern;

// Indices, aliases and data streams, with what is behind each.
class RemoteTables
{
public:
    // Asks the cluster. Throws FdwError and ServerError as search::get does, and FdwError for what cannot be
    // read.
    RemoteTables(const std::shared_ptr<search::ClusterSession> &session, const IndexPattern &pattern);

    using Indices = std::map<std::string, const RemoteIndex *>;
    const std::map<std::string, Indices> &tables() const { return found; }

    // The mapping of one of the indices. Throws FdwError.
    Mapping mappingOf(const RemoteIndex &index) const { return remote.mappingOf(index); }

private:
    void takeStreams(const search::Response &response);
    void takeAliases(const search::Response &response, const IndexPattern &pattern);
    void offer(const std::string &name, const std::string &member);

    RemoteIndices remote;
    std::map<std::string, std::vector<std::string>> streams; // the names of their indices
    std::map<std::string, Indices> found;
};

} // namespace qm::extension
