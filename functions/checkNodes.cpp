// Checks of the nodes of a cluster, from the name of the host to the version.
#include "server/errorBoundary.h"

#include "functions/checkNodes.h"

#include <charconv>

namespace qm::functions
{

using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::takeText;

namespace
{

constexpr std::time_t SoonExpired = std::time_t{30} * SECS_PER_DAY;
constexpr int OldestVersion = 6;
constexpr int NewestVersion = 9;

std::string inMs(std::int64_t microseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(microseconds) / 1000);
    return text;
}

std::string dayOf(std::time_t moment)
{
    std::tm parts = {};
    char text[32] = "";
    if (gmtime_r(&moment, &parts))
        std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
    return text;
}

// What "/" says of whoever responds.
struct About {
    std::string cluster;
    std::string version;
    std::string distribution;
};

About readAbout(const search::Response &response)
{
    About about;
    search::readResponse(response, [&](JsonCursor &cursor) {
        forEachMember(cursor, [&](std::string_view name) {
            if (name == "cluster_name")
                about.cluster = takeText(cursor);
            else if (name == "version" && cursor.peek() == '{')
                forEachMember(cursor, [&](std::string_view member) {
                    std::string *target = member == "number"         ? &about.version
                                          : member == "distribution" ? &about.distribution
                                                                     : nullptr;
                    if (target)
                        *target = takeText(cursor);
                    else
                        cursor.value();
                });
            else
                cursor.value();
        });
    });
    return about;
}

// The checks of one node, each of which returns whether it makes sense to go on.
class NodeCheck
{
public:
    NodeCheck(Report &report, CheckedNode &node)
        : report(report), node(node), settings(node.cluster().settings), prefix(node.name() + ": ")
    {
    }

    bool run();

private:
    bool checkConnection();
    bool checkCertificate();
    bool checkAccess();
    bool checkVersion();
    void add(Verdict verdict, const char *what, const std::string &detail, const std::string &hint = "")
    {
        report.add(verdict, what, prefix + detail, hint);
    }
    bool fail(const char *what);

    Report &report;
    CheckedNode &node;
    const http::Settings &settings;
    const std::string prefix;
    http::Trace trace;
    search::Response response;
};

bool NodeCheck::run()
{
    http::Request request{http::Method::Get, "/", ""};
    request.trace = &trace;
    return report.survives("response", [&] { response = node.attempt(request); }) && checkConnection() &&
           checkCertificate() && checkAccess() && checkVersion();
}

// Tells why there is no response.
bool NodeCheck::fail(const char *what)
{
    const CURLcode code = response.outcome.code;
    add(Verdict::Wrong, what,
        search::quoted(trace.problem[0] ? trace.problem : curl_easy_strerror(code)) + " (libcurl " +
            std::to_string(static_cast<int>(code)) + ")",
        search::transferFailure(response.request, response.outcome).hint);
    return false;
}

bool NodeCheck::checkConnection()
{
    const bool hasProxy = settings.proxy && !settings.proxy->empty();
    if (trace.resolved == 0)
        return fail("host name");
    add(Verdict::Fine, "host name",
        (hasProxy ? "that of the proxy resolved in " : "resolved in ") + inMs(trace.resolved));
    // Versions of libcurl differ in whether they tell the time of a connection on which TLS failed.
    const CURLcode code = response.outcome.code;
    if (trace.connected == 0 && (code == CURLE_COULDNT_CONNECT || code == CURLE_OPERATION_TIMEDOUT))
        return fail("connection");
    add(Verdict::Fine, "connection",
        (hasProxy ? "through the proxy at " : "to ") + search::quoted(trace.address) +
            (trace.connected == 0 ? "" : ", in " + inMs(trace.connected - trace.resolved)));
    return true;
}

bool NodeCheck::checkCertificate()
{
    if (response.request.url.compare(0, 8, "https://") != 0)
        return true;
    if (trace.secured == 0)
        return fail("TLS");
    std::string detail = settings.verifiesTls ? "verified" : "not verified";
    if (!trace.issuer.empty())
        detail += ", issued by " + search::quoted(trace.issuer);
    if (trace.expiry > 0)
        detail += ", valid until " + dayOf(trace.expiry);
    const bool isSoonExpired = trace.expiry > 0 && trace.expiry < std::time(nullptr) + SoonExpired;
    add(isSoonExpired ? Verdict::Wrong : Verdict::Fine, "TLS", detail,
        isSoonExpired ? "Renew the certificate of the cluster." : "");
    return true;
}

bool NodeCheck::checkAccess()
{
    if (response.outcome.code != CURLE_OK)
        return fail("response");
    const server::FdwError refusal = search::refusal(response.request, response.outcome, response.body);
    switch (response.outcome.status) {
    case 200:
        add(Verdict::Fine, "credentials", settings.hasCredentials() ? "taken" : "none are asked for");
        return true;
    case 401:
        report.wrong("credentials", refusal);
        return false;
    case 403:
        report.add(Verdict::Unknown, "credentials", refusal.detail,
                   "They may be good for searches. The cluster privilege monitor tells the version as well.");
        return true;
    default:
        report.wrong("response", refusal);
        return false;
    }
}

bool NodeCheck::checkVersion()
{
    if (response.outcome.status != 200)
        return true;
    About about;
    if (!report.survives("version", [&] { about = readAbout(response); }))
        return false;
    int major = 0;
    std::from_chars(about.version.data(), about.version.data() + about.version.size(), major);
    if (major == 0) {
        add(Verdict::Wrong, "version", "what responds there is no Elasticsearch",
            "Check the option \"address\" of the foreign server.");
        return false;
    }
    const bool isKnown = major >= OldestVersion && major <= NewestVersion && about.distribution.empty();
    add(isKnown ? Verdict::Fine : Verdict::Wrong, "version",
        "cluster \"" + search::quoted(about.cluster) + "\", version " + search::quoted(about.version) +
            (about.distribution.empty() ? "" : " of " + search::quoted(about.distribution)),
        isKnown ? "" : "The wrapper is made for Elasticsearch 6 to 9; others may do.");
    return true;
}

} // namespace

std::optional<CheckedNode> checkNodes(Report &report, Oid server, const search::Cluster &cluster)
{
    std::optional<CheckedNode> usable;
    for (const std::string &url : cluster.nodes) {
        CheckedNode node(server, cluster, url);
        if (NodeCheck(report, node).run() && !usable)
            usable = std::move(node);
    }
    return usable;
}

} // namespace qm::functions
