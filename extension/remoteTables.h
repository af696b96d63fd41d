// What a cluster has that can be imported as a table.
#pragma once

#include "extension/mapping.h"
#include "search/response.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qm::extension
{

class IndexPattern;

struct RemoteIndex {
    std::string_view mapping; // JSON, as the cluster told it
    MappingDefaults defaults;
    bool isOffered = true; // neither hidden nor closed, nor a part of a data stream
    bool isClosed = false;
};

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
    Mapping mappingOf(const RemoteIndex &index) const;

private:
    void takeMappings();
    void takeSettings(const search::Response &response);
    void takeStreams(const search::Response &response);
    void takeAliases(const search::Response &response, const IndexPattern &pattern);
    void offer(const std::string &name, const std::string &member);

    search::Response mappings; // the indices refer to it
    std::map<std::string, RemoteIndex> indices;
    std::map<std::string, std::vector<std::string>> streams; // the names of their indices
    std::map<std::string, Indices> found;
};

} // namespace qm::extension
