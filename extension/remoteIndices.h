// The indices of a pattern, and what the cluster says of them.
#pragma once

#include "extension/mapping.h"
#include "search/response.h"

#include <map>
#include <string>
#include <string_view>

namespace qm::extension
{

using zq::elasticsearch::JsonCursor;

struct RemoteIndex {
    std::string_view mapping; // JSON, as the cluster told it
    MappingDefaults defaults;
    std::string resultWindow; // hits that a page may have; empty: not said
    bool isOffered = true;    // neither hidden nor closed, nor a part of a data stream
    bool isClosed = false;
};

// Indices by name.
class RemoteIndices
{
public:
    // Reads the response to a request for mappings; a refusal has none. Throws FdwError.
    explicit RemoteIndices(search::Response mappings);
    RemoteIndices(const RemoteIndices &) = delete;
    RemoteIndices &operator=(const RemoteIndices &) = delete;

    // Reads the response to a request for settings by dotted names. Throws FdwError.
    void takeSettings(const search::Response &response);
    void hide(const std::string &name);

    const std::map<std::string, RemoteIndex> &all() const { return indices; }
    // Throws FdwError.
    Mapping mappingOf(const RemoteIndex &index) const;

private:
    const search::Response mappings; // the indices refer to it
    std::map<std::string, RemoteIndex> indices;
};

// Calls take(name of an index, cursor) for the member `wanted` of each index.
template <typename Take>
void forEachIndex(JsonCursor &cursor, std::string_view wanted, Take &&take)
{
    forEachMember(
        cursor,
        [&](std::string_view index) {
            const std::string name(index);
            forEachMember(
                cursor,
                [&](std::string_view member) {
                    if (member == wanted)
                        take(name, cursor);
                    else
                        cursor.value();
                });
        });
}

} // namespace qm::extension
