// The indices of a pattern, and what the cluster says of them.
#include "server/errorBoundary.h"

#include "extension/remoteIndices.h"

namespace qm::extension
{

using search::reading;
using search::readResponse;
using zq::elasticsearch::takeText;

namespace
{

// What indices of the mode for logs have by themselves.
constexpr const char *IgnoreAboveOfLogs = "8191";

void apply(const std::string &name, const std::string &value, RemoteIndex &index)
{
    const bool isTrue = value == "true";
    if (name == "index.hidden") {
        index.isOffered = index.isOffered && !isTrue;
    } else if (name == "index.verified_before_close") {
        index.isClosed = isTrue;
    } else if (name == "index.mapping.ignore_malformed") {
        index.defaults.ignoresMalformed = isTrue;
    } else if (name == "index.mapping.ignore_above") {
        index.defaults.ignoreAbove = value;
    } else if (name == "index.max_result_window") {
        index.resultWindow = value;
    } else if (name == "index.mode" && value == "logsdb") {
        index.defaults.ignoresMalformed = true;
        if (index.defaults.ignoreAbove.empty())
            index.defaults.ignoreAbove = IgnoreAboveOfLogs;
    }
}

} // namespace

RemoteIndices::RemoteIndices(search::Response mappingsOfIndices) : mappings(std::move(mappingsOfIndices))
{
    if (!mappings.isOk())
        return;
    readResponse(mappings, [&](JsonCursor &cursor) {
        forEachIndex(cursor, "mappings", [&](const std::string &name, JsonCursor &value) {
            indices[name].mapping = value.value();
        });
    });
}

void RemoteIndices::takeSettings(const search::Response &response)
{
    readResponse(
        response,
        [&](JsonCursor &cursor) {
            forEachIndex(
                cursor, "settings",
                [&](const std::string &name, JsonCursor &settings) {
                    const auto index = indices.find(name);
                    forEachMember(
                        settings,
                        [&](std::string_view setting) {
                            const std::string known(setting);
                            const std::string value = takeText(settings);
                            if (index != indices.end())
                                apply(known, value, index->second);
                        });
                });
        });
}

void RemoteIndices::hide(const std::string &name)
{
    if (const auto index = indices.find(name); index != indices.end())
        index->second.isOffered = false;
}

Mapping RemoteIndices::mappingOf(const RemoteIndex &index) const
{
    Mapping mapping;
    reading(mappings, index.mapping, [&] { mapping = readMapping(index.mapping, index.defaults); });
    return mapping;
}

} // namespace qm::extension
