// Checks of what a cluster has to do, and of the way to it.
#include "server/errorBoundary.h"

#include "functions/checkCluster.h"

#include <algorithm>
#include <charconv>

namespace qm::functions
{

using search::Response;
using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::takeText;

namespace
{

constexpr int MostContexts = 500; // of a node, by default
constexpr int ManyContexts = MostContexts * 4 / 5;
constexpr double LongMs = 100;
constexpr int RoundTrips = 3;

// A node of the cluster's, by its own name.
struct Load {
    std::string node;
    int contexts = -1; // not told
};

// Calls take() for the member of that name of the object that comes next.
template <typename Take>
void inMember(JsonCursor &cursor, std::string_view wanted, Take &&take)
{
    forEachMember(
        cursor,
        [&](std::string_view name) {
            if (name == wanted && cursor.peek() == '{')
                take();
            else
                cursor.value();
        });
}

Load readLoad(JsonCursor &cursor)
{
    Load load;
    const auto readContexts = [&] {
        forEachMember(
            cursor,
            [&](std::string_view name) {
                const std::string_view value = cursor.value();
                if (name == "scroll_current")
                    std::from_chars(value.data(), value.data() + value.size(), load.contexts);
            });
    };
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "name")
            load.node = takeText(cursor);
        else if (name == "indices" && cursor.peek() == '{')
            inMember(cursor, "search", readContexts);
        else
            cursor.value();
    });
    return load;
}

Load readHighestLoad(const Response &response)
{
    Load highest;
    search::readResponse(response, [&](JsonCursor &cursor) {
        inMember(cursor, "nodes", [&] {
            forEachMember(cursor, [&](std::string_view) {
                Load load = readLoad(cursor);
                if (load.contexts > highest.contexts)
                    highest = std::move(load);
            });
        });
    });
    return highest;
}

void checkContexts(Report &report, CheckedNode &node)
{
    const std::string what = "scroll contexts";
    const std::optional<Response> response =
        lookAt(node, report, what, "/_nodes/stats/indices/search", "cluster privilege monitor");
    Load load;
    if (!response || !report.survives(what, [&] { load = readHighestLoad(*response); }))
        return;
    const std::string detail = "At most " + std::to_string(load.contexts) + " are open on a node (" +
                               search::quoted(load.node) + "), of " + std::to_string(MostContexts) +
                               " by default.";
    if (load.contexts < 0)
        report.add(Verdict::Unknown, what, "The cluster does not tell.");
    else if (load.contexts > ManyContexts)
        report.wrong(
            what, detail,
            "A query of a large result has one for each shard until it ends: close cursors, run fewer "
            "such queries at a time, or lower \"scrolltimeout\" of the foreign tables.");
    else
        report.fine(what, detail);
}

double msOf(http::Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

void checkRoundTrip(Report &report, CheckedNode &node)
{
    const std::string what = "round trip";
    http::Clock::duration best = http::Clock::duration::max();
    if (!report.survives(what, [&] {
            for (int i = 0; i < RoundTrips; ++i) {
                const http::Clock::time_point begin = http::Clock::now();
                node.ask({http::Method::Get, "/", ""});
                best = std::min(best, http::Clock::now() - begin);
            }
        }))
        return;
    char detail[64];
    std::snprintf(detail, sizeof detail, "%.1f ms on an open connection", msOf(best));
    if (msOf(best) > LongMs)
        report.wrong(what, detail,
                     "Each request takes so long at least: raise \"requestcost\" of the foreign server, and "
                     "\"batchsize\" of its tables.");
    else
        report.fine(what, detail);
}

} // namespace

void checkCluster(Report &report, CheckedNode &node)
{
    checkContexts(report, node);
    checkRoundTrip(report, node);
}

} // namespace qm::functions
