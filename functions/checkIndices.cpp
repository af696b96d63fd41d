// Checks of the indices of a foreign table.
#include "server/errorBoundary.h"

#include "functions/checkIndices.h"
#include "search/partial.h"
#include "search/searchRequest.h"

namespace qm::functions
{

using search::Response;
using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::SearchResponseReader;
using zq::elasticsearch::takeText;

namespace
{

// Throws FdwError where the response is none of a search.
void readSearch(const Response &response, SearchResponseReader &reader)
{
    if (!response.isOk())
        throw search::refusal(response.request, response.outcome, response.body);
    reader.read(response.body.data(), response.body.size());
    if (!reader.finish())
        throw reader.error().empty() ? search::unreadable(response.request, reader.problem())
                                     : search::refusal(response.request, response.outcome, response.body);
}

bool checkSearch(Report &report, CheckedNode &node, const std::string &indices)
{
    const std::string what = "search";
    Response response;
    SearchResponseReader reader;
    const bool isThere = report.survives(
        what,
        [&] {
            response = node.ask(
                {http::Method::Post, search::searchPath(indices), R"({"size":0,"track_total_hits":true})"});
            readSearch(response, reader);
        });
    if (isThere && report.survives(what, [&] {
            search::checkWhole(reader, response.request, search::PartialResults::Error);
        }))
        report.fine(what, std::to_string(reader.summary().total) + " documents");
    return isThere;
}

void checkShards(Report &report, CheckedNode &node, const std::string &indices)
{
    const std::string what = "shards";
    const std::optional<Response> response =
        lookAt(node, report, what, "/_cluster/health/" + indices, "index privilege monitor");
    if (!response)
        return;
    std::string status;
    std::string unassigned;
    if (!report.survives(what, [&] {
            search::readResponse(*response, [&](JsonCursor &cursor) {
                forEachMember(cursor, [&](std::string_view name) {
                    if (name == "status")
                        status = takeText(cursor);
                    else if (name == "unassigned_shards")
                        unassigned = takeText(cursor);
                    else
                        cursor.value();
                });
            });
        }))
        return;
    const std::string detail =
        "The health is " + search::quoted(status) + ", shards without a node: " + search::quoted(unassigned);
    if (status == "green")
        report.fine(what, detail);
    else if (status == "yellow")
        report.add(Verdict::Fine, what, detail, "Copies are missing: searches find all the same.");
    else
        report.wrong(what, detail,
                     "Not all documents can be found: GET /_cluster/allocation/explain tells why.");
}

} // namespace

bool checkIndices(Report &report, CheckedNode &node, const std::string &indices)
{
    if (!checkSearch(report, node, indices))
        return false;
    checkShards(report, node, indices);
    return true;
}

} // namespace qm::functions
