// Where the rows come from: the requests of a scan, one batch or page at a time.
#include "fetch.h"
#include "http/url.h"
#include "request.h"
#include "server/memory.h"
#include "transport.h"

#include <cstring>
#include <memory>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::SearchResultParser;
using server::callServer;
using server::FdwError;
using zq::elasticsearch::SearchResponseStatus;

namespace
{

std::string urlOf(const ElasticSearchConnector *connector)
{
    return http::clusterUrl(connector->address, connector->port);
}

std::string describePartialResponse(const SearchResponseStatus &status)
{
    const long silent = status.totalShards - status.successfulShards - status.failedShards;
    const auto ofAll = [&](long shards) {
        return std::to_string(shards) + " of " + std::to_string(status.totalShards) + " shards ";
    };
    std::string text = "ElasticSearch answer is partial: ";
    if (status.timedOut)
        text += "timed out, ";
    if (status.failedShards > 0)
        text += ofAll(status.failedShards) + "failed, ";
    if (silent > 0)
        text += ofAll(silent) + "without an answer, ";
    text.resize(text.size() - std::strlen(", "));
    return text;
}

void reportPartialResponse(const ElasticSearchConnector *connector, const SearchResponseStatus &status)
{
    if (connector->partialResults == PartialResults::Ignore)
        return;
    const std::string message = describePartialResponse(status);
    if (connector->partialResults == PartialResults::Error)
        throw FdwError(ERRCODE_FDW_ERROR, message);
    callServer(
        [&] { ereport(WARNING, (errcode(ERRCODE_FDW_ERROR), errmsg_internal("%s", message.c_str()))); });
}

// Sends one search or page request, which appends its hits to the result queues, and returns the collector
// for what else the response said.
std::unique_ptr<SearchResultParser> fetch(ElasticSearchConnector *connector, const std::string &url,
                                          const std::string &body)
{
    const bool *fill = connector->fillColumns;
    auto parser = std::make_unique<SearchResultParser>(connector->batchSize, fill[DocContent], fill[Score],
                                                       fill[DocType], fill[Highlights]);
    // No row is left in the page at this time. A look-up of many batches of which no id exists must not pile
    // up.
    parser->collectIn(connector->page->reset());
    DoCurlRequest(connector, url, body, parser.get(), false);
    if (parser->getStatus().isPartial())
        reportPartialResponse(connector, parser->getStatus());
    return parser;
}

// The number of hits, more than any other where the response only tells that there may be more than it
// counted.
int64 totalOf(const SearchResultParser &parser)
{
    return parser.isTotalLowerBound() ? PG_INT64_MAX : parser.getTotalHits();
}

// Neither a part of the hits nor an arbitrary choice among them may pass for the result. `asked` is how many
// hits the request asked for, `received` how many came.
void refuseMoreThanABatch(const ElasticSearchConnector *connector, int64 asked, int64 received)
{
    const auto exceeds = [&](int64 size) {
        const bool limitFits = connector->limit != -1 && connector->limit <= size;
        return size < connector->totalHits && !limitFits;
    };
    // One id can stand in several indices: a look-up then finds more documents than it has ids.
    const bool someAreLost = connector->searchMode == SearchByDocName && received < connector->totalHits;
    if (exceeds(connector->batchSize) || (someAreLost && exceeds(asked)))
        throw FdwError(ERRCODE_FDW_ERROR, "es search result bigger than batch size, use a scroll");
}

// The id must outlive the page: it is kept in the scan's context.
void keepScrollId(ElasticSearchConnector *connector, const std::string &scrollId)
{
    server::MemoryContextScope scope(connector->scanContext);
    server::replaceString(connector->scrollId, scrollId.c_str());
}

void dropScrollId(ElasticSearchConnector *connector)
{
    pfree(connector->scrollId);
    connector->scrollId = nullptr;
}

void openScroll(ElasticSearchConnector *connector)
{
    connector->scrollStarted = true;
    std::string members;
    bool hasIds = true;
    AppendBasePostContent(connector, members, hasIds, true);
    const std::string url =
        urlOf(connector) + "/" + connector->indexList + "/_search/?scroll=" + connector->scrollTimeout;
    const auto parser = fetch(connector, url, "{" + members + "}");
    connector->totalHits = totalOf(*parser);
    keepScrollId(connector, parser->getScrollId());
}

// The id goes into a body as it came: still escaped, between quotes.
std::string scrollIdMember(const ElasticSearchConnector *connector)
{
    return std::string(R"("scroll_id":")") + connector->scrollId + "\"";
}

std::unique_ptr<SearchResultParser> requestNextPage(ElasticSearchConnector *connector)
{
    const std::string url = urlOf(connector) + "/_search/scroll";
    if (!connector->dialect->scrollIdInBody) {
        const std::string parameters =
            std::string("?scroll=") + connector->scrollTimeout + "&scroll_id=" + connector->scrollId;
        return fetch(connector, url + parameters, "");
    }
    std::string body = R"({"scroll":)";
    appendString(body, connector->scrollTimeout);
    return fetch(connector, url, body + "," + scrollIdMember(connector) + "}");
}

void fetchNextPage(ElasticSearchConnector *connector)
{
    if (!connector->scrollId || connector->rowsReturned >= connector->totalHits)
        return;
    const auto parser = requestNextPage(connector);
    const int64 hits = connector->page->hitCount();
    if (hits == 0 || connector->rowsReturned + hits == connector->totalHits)
        dropScrollId(connector);
    else
        keepScrollId(connector, parser->getScrollId());
}

} // namespace

void UpdateConnectorCacheStdMode(ElasticSearchConnector *connector)
{
    if (connector->searchMode == SearchByQuery && connector->pagesFetched != 0)
        return;
    ++connector->pagesFetched;

    const std::string url = urlOf(connector) + "/" + connector->indexList + connector->dialect->searchPath;
    do {
        std::string members;
        bool hasIds = true;
        const int64 idsBefore = connector->docNames.left();
        AppendBasePostContent(connector, members, hasIds, false);
        if (!hasIds)
            return;
        const auto parser = fetch(connector, url, "{" + members + "}");
        connector->totalHits = totalOf(*parser);
        refuseMoreThanABatch(connector, idsBefore - connector->docNames.left(), connector->page->hitCount());
        // A batch of ids of which none exists is no end: go on with the next one.
    } while (connector->searchMode == SearchByDocName && connector->page->isEmpty() &&
             connector->docNames.left() > 0);
}

void UpdateConnectorCacheScrollMode(ElasticSearchConnector *connector)
{
    if (!connector->scrollStarted) {
        openScroll(connector);
        if (!connector->page->isEmpty())
            return;
    }
    fetchNextPage(connector);
}

void DeleteScroll(ElasticSearchConnector *connector)
{
    const std::string url = urlOf(connector) + "/_search/scroll";
    if (connector->dialect->scrollIdInBody)
        DoCurlRequest(connector, url, "{" + scrollIdMember(connector) + "}", nullptr, true);
    else
        DoCurlRequest(connector, url + "?&scroll_id=" + connector->scrollId, "", nullptr, true);
}

} // namespace qm::pgFdwElaticSearch
