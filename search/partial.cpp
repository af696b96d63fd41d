// Responses that lack what shards should have brought.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/partial.h"

namespace qm::search
{
namespace
{

std::string lackOf(const zq::elasticsearch::ResponseSummary &summary)
{
    std::string what;
    const auto append = [&](const std::string &text) { what += (what.empty() ? "" : ", ") + text; };
    if (summary.timedOut)
        append("timed out");
    if (summary.successfulShards < summary.totalShards || summary.failedShards > 0)
        append(std::to_string(summary.totalShards - summary.successfulShards) + " of " +
               std::to_string(summary.totalShards) + " shards failed or did not respond");
    if (summary.lackingClusters > 0)
        append(std::to_string(summary.lackingClusters) + " clusters did not respond in full");
    return what;
}

} // namespace

void checkWhole(const zq::elasticsearch::SearchResponseReader &response, const http::Request &request,
                PartialResults partialResults)
{
    if (!response.summary().isPartial())
        return;
    const std::string reason = failedShardReason(response.shards());
    const std::string detail =
        describe(request) + ": " + lackOf(response.summary()) + (reason.empty() ? "" : ": " + quoted(reason));
    const char *message = "the response of the search cluster lacks hits";
    if (partialResults == PartialResults::Error)
        throw server::FdwError(ERRCODE_FDW_ERROR, message)
            .detailed(detail)
            .hinted("Look at the cluster's health. The option \"partialresults\" of the foreign table can "
                    "make this a warning.");
    server::callServer([&] {
        ereport(WARNING, (errcode(ERRCODE_FDW_ERROR), errmsg_internal("%s", message),
                          errdetail_internal("%s", detail.c_str())));
    });
}

} // namespace qm::search
