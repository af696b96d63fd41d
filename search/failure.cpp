// What a failed exchange with a search cluster is as an error of the server.
#include "search/failure.h"
#include "elasticsearch/jsonMember.h"
#include "elasticsearch/jsonString.h"
#include "server/encoding.h"

namespace qm::search
{

using server::FdwError;
using zq::elasticsearch::forEachMember;
using zq::elasticsearch::JsonCursor;

namespace
{

constexpr std::size_t MostQuotedBytes = 2048;

// The text of a string value, decoded as far as it can be.
std::string textOf(std::string_view raw)
{
    std::string decoded;
    return zq::elasticsearch::decodeJsonText(raw, decoded) ? decoded : std::string(raw);
}

// No cluster tells more causes of causes than that.
constexpr int DeepestCause = 8;

// What an `error` member or a shard's `reason` says, and the causes that it names; empty when it says
// nothing.
std::string reasonIn(std::string_view error, int depth = 0)
{
    std::string type;
    std::string reason;
    std::string cause;
    const bool isObject = forEachMember(error, [&](std::string_view name, JsonCursor &cursor) {
        if (cursor.peek() != '"') {
            const std::string_view value = cursor.value();
            if (depth < DeepestCause &&
                (name == "caused_by" || name == "reason")) // the reason of a failed shard is an error again
                cause = reasonIn(value, depth + 1);
        } else if (name == "type") {
            type = textOf(cursor.string());
        } else if (name == "reason") {
            reason = textOf(cursor.string());
        } else {
            cursor.string();
        }
    });
    if (!isObject)
        return error.size() >= 2 && error.front() == '"' ? textOf(error.substr(1, error.size() - 2))
                                                         : std::string();
    std::string all = type;
    if (!reason.empty())
        all += (all.empty() ? "" : ": ") + reason;
    if (!cause.empty())
        all += (all.empty() ? "" : "; ") + cause;
    return all;
}

struct StatusHint {
    long status;
    const char *hint;
};

constexpr StatusHint StatusHints[] = {
    {301,
     "Redirects are not followed: name the place itself in the option \"address\" of the foreign server."},
    {302,
     "Redirects are not followed: name the place itself in the option \"address\" of the foreign server."},
    {400, "If the query is meant as it is, try it on the cluster; the reason tells what it does not take."},
    {401, "Check \"username\" and \"password\", or \"apikey\", of the user mapping."},
    {403, "The credentials of the user mapping do not allow this search."},
    {404, "Check the option \"indexlist\" of the foreign table."},
    {413, "The request is larger than the cluster takes: ask for fewer ids, or less, at once."},
    {429, "The cluster has too much to do, or too many scroll contexts are open: try again later."},
    {502, "What stands before the cluster does not reach it."},
    {503, "The cluster, or an index of it, is not available: try again later."},
    {504, "What stands before the cluster waited for it in vain."},
};

const char *hintFor(long status)
{
    for (const StatusHint &known : StatusHints)
        if (known.status == status)
            return known.hint;
    return "";
}

const char *hintFor(CURLcode code)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return "Check the host in the option \"address\" of the foreign server.";
    case CURLE_COULDNT_RESOLVE_PROXY:
        return "Check the host in the option \"proxy\" of the foreign server.";
    case CURLE_COULDNT_CONNECT:
        return "Check the option \"address\" of the foreign server, its port included (9200 is usual), and "
               "\"proxy\" if it is set, and whether the cluster runs.";
    case CURLE_OPERATION_TIMEDOUT:
        return "The options \"connecttimeout\" and \"timeout\" of the foreign server say how long a request "
               "may take.";
    case CURLE_SEND_FAIL_REWIND:
        return "A kept connection broke as the request went out, which is not sent twice: try again. The "
               "foreign server's option \"keepconnections\" can do without such connections.";
    case CURLE_PEER_FAILED_VERIFICATION:
        return "Name the authority that signed the cluster's certificate with the option \"cafile\" of the "
               "foreign server.";
    case CURLE_SSL_CACERT_BADFILE:
        return "The option \"cafile\" of the foreign server, or the package ca-certificates of the machine, "
               "brings the authorities to verify a certificate with.";
    default:
        return "";
    }
}

} // namespace

std::string describe(const http::Request &request)
{
    const char *method = request.method == http::Method::Get    ? "GET "
                         : request.method == http::Method::Post ? "POST "
                                                                : "DELETE ";
    return method + request.url;
}

std::string quoted(std::string_view utf8)
{
    const std::string text(utf8.substr(0, MostQuotedBytes));
    return server::callServer([&] { return server::utf8ToMessage(text.c_str()); });
}

std::string failedShardReason(std::string_view shards)
{
    std::string reason;
    forEachMember(shards, [&](std::string_view name, JsonCursor &cursor) {
        if (name != "failures" || cursor.peek() != '[') {
            cursor.value();
            return;
        }
        cursor.take('[');
        for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false) {
            const std::string_view failure = cursor.value();
            if (isFirst)
                reason = reasonIn(failure);
        }
    });
    return reason;
}

std::string reasonOf(std::string_view body)
{
    std::string reason;
    forEachMember(body, [&](std::string_view name, JsonCursor &cursor) {
        const std::string_view value = cursor.value();
        if (name == "error")
            reason = reasonIn(value);
    });
    return reason.empty() ? std::string(body) : reason;
}

FdwError transferFailure(const http::Request &request, const http::Outcome &outcome)
{
    const std::string what = std::string(curl_easy_strerror(outcome.code)) + " (libcurl " +
                             std::to_string(static_cast<int>(outcome.code)) + ")";
    return FdwError(outcome.wasSent ? ERRCODE_FDW_ERROR : ERRCODE_FDW_UNABLE_TO_ESTABLISH_CONNECTION,
                    outcome.wasSent ? "the exchange with the search cluster broke off"
                                    : "could not connect to the search cluster")
        .detailed(describe(request) + ": " + what)
        .hinted(hintFor(outcome.code));
}

FdwError refusal(const http::Request &request, const http::Outcome &outcome, std::string_view body)
{
    std::string detail = describe(request) + ": HTTP status " + std::to_string(outcome.status);
    const std::string reason = reasonOf(body);
    if (!reason.empty())
        detail += ": " + quoted(reason);
    return FdwError(ERRCODE_FDW_ERROR, "the search cluster refused the request")
        .detailed(detail)
        .hinted(reason.find("no handler found for uri") == std::string::npos
                    ? hintFor(outcome.status)
                    : "Check the path in the option \"address\" of the foreign server.");
}

FdwError unreadable(const http::Request &request, const std::string &problem)
{
    return FdwError(ERRCODE_FDW_ERROR, "the response of the search cluster cannot be read")
        .detailed(describe(request) + ": " + problem)
        .hinted("Check that the option \"address\" of the foreign server leads to the cluster; its log, or "
                "that of a proxy before it, tells more.");
}

} // namespace qm::search
