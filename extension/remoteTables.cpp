// What a cluster has that can be imported as a table.
#include "server/errorBoundary.h"

#include "extension/indexPattern.h"
#include "extension/remoteTables.h"
#include "search/failure.h"

#include <algorithm>

namespace qm::extension
{

using search::readResponse;
using search::Response;
using server::FdwError;
using zq::elasticsearch::forEachMember;
using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::takeText;

namespace
{

using Session = std::shared_ptr<search::ClusterSession>;

constexpr long StatusBadRequest = 400;
constexpr long StatusNotFound = 404;
constexpr long StatusWrongMethod = 405;

// Settings that count where a mapping is silent, and those that hide an index.
constexpr const char *Settings =
    "index.hidden,index.verified_before_close,index.mode,index.mapping.ignore_malformed,"
    "index.mapping.ignore_above";

[[noreturn]] void throwRefusal(const Response &response)
{
    throw search::refusal(response.request, response.outcome, response.body);
}

Response getMappings(const Session &session, const IndexPattern &pattern)
{
    Response response = search::get(session, "/" + pattern.pathPart() + "/_mapping");
    if (!response.isOk() && response.outcome.status != StatusNotFound)
        throwRefusal(response);
    return response;
}

// Without the settings, columns would be told of fields that the search knows otherwise.
Response getSettings(const Session &session, const IndexPattern &pattern)
{
    Response response =
        search::get(session, "/" + pattern.pathPart() + "/_settings/" + Settings + "?flat_settings=true");
    if (!response.isOk())
        throwRefusal(response);
    return response;
}

// Asks what not every version knows: what is not there, there are none of.
Response getIfKnown(const Session &session, const std::string &path)
{
    Response response = search::get(session, path);
    const long status = response.outcome.status;
    if (status == StatusBadRequest || status == StatusNotFound || status == StatusWrongMethod)
        response.body = "{}";
    else if (!response.isOk())
        throwRefusal(response);
    return response;
}

// What an index, an alias or a data stream may be called, unless it is hidden.
bool isNameOfTable(const std::string &name)
{
    const auto isBlankOrControl = [](char each) {
        const auto byte = static_cast<unsigned char>(each);
        return byte <= ' ' || byte == 0x7F;
    };
    return !name.empty() && name.front() != '.' && name.find_first_of("\\/*?\"<>|,#") == std::string::npos &&
           std::none_of(name.begin(), name.end(), isBlankOrControl);
}

struct Stream {
    std::string name;
    std::vector<std::string> indices;
    bool isHidden = false;
};

Stream readStream(JsonCursor &cursor)
{
    Stream stream;
    forEachMember(cursor, [&](std::string_view member) {
        if (member == "name") {
            stream.name = takeText(cursor);
        } else if (member == "hidden") {
            stream.isHidden = takeText(cursor) == "true";
        } else if (member == "indices") {
            cursor.take('[');
            for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false)
                forEachMember(cursor, [&](std::string_view property) {
                    const bool isName = property == "index_name";
                    std::string value = takeText(cursor);
                    if (isName)
                        stream.indices.push_back(std::move(value));
                });
        } else {
            cursor.value();
        }
    });
    return stream;
}

} // namespace

RemoteTables::RemoteTables(const std::shared_ptr<search::ClusterSession> &session,
                           const IndexPattern &pattern)
    : remote(getMappings(session, pattern))
{
    if (remote.all().empty())
        return;
    remote.takeSettings(getSettings(session, pattern));
    takeStreams(getIfKnown(session, "/_data_stream"));
    for (const auto &[name, index] : remote.all())
        if (pattern.matches(name) && index.isOffered)
            offer(name, name);
    for (const auto &[name, members] : streams)
        if (pattern.matches(name))
            offer(name, name);
    takeAliases(getIfKnown(session, "/_alias/" + pattern.widePathPart()), pattern);
}

void RemoteTables::takeStreams(const Response &response)
{
    readResponse(
        response,
        [&](JsonCursor &cursor) {
            forEachMember(
                cursor,
                [&](std::string_view member) {
                    if (member != "data_streams") {
                        cursor.value();
                        return;
                    }
                    cursor.take('[');
                    for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false) {
                        Stream stream = readStream(cursor);
                        for (const std::string &name : stream.indices)
                            remote.hide(name);
                        if (!stream.isHidden)
                            streams.emplace(stream.name, std::move(stream.indices));
                    }
                });
        });
}

void RemoteTables::takeAliases(const Response &response, const IndexPattern &pattern)
{
    readResponse(
        response,
        [&](JsonCursor &cursor) {
            forEachIndex(
                cursor, "aliases",
                [&](const std::string &member, JsonCursor &aliases) {
                    forEachMember(
                        aliases,
                        [&](std::string_view alias) {
                            const std::string name(alias);
                            bool isHidden = false;
                            forEachMember(
                                aliases,
                                [&](std::string_view property) {
                                    const bool says = property == "is_hidden";
                                    const std::string value = takeText(aliases);
                                    isHidden = isHidden || (says && value == "true");
                                });
                            if (!isHidden && pattern.matches(name))
                                offer(name, member);
                        });
                });
        });
}

// Makes an index, or those of a data stream, ones of a table.
void RemoteTables::offer(const std::string &name, const std::string &member)
{
    const auto stream = streams.find(member);
    const std::vector<std::string> members =
        stream == streams.end() ? std::vector<std::string>{member} : stream->second;
    for (const std::string &each : members) {
        const auto index = remote.all().find(each);
        if (index != remote.all().end() && !index->second.isClosed && isNameOfTable(name))
            found[name].emplace(each, &index->second);
    }
}

} // namespace qm::extension
