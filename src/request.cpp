// The JSON body of a search request, put together by plain appends: what a query gives as JSON goes into it
// unchanged.
#include "request.h"
#include "elasticsearch/jsonWriter.h"
#include "server/errorBoundary.h"

#include <stdexcept>

namespace qm::pgFdwElaticSearch
{

using server::FdwError;

namespace
{

// Reads a text without asking the server: ours are never toasted.
std::string_view viewOf(const text *value) { return {VARDATA_ANY(value), VARSIZE_ANY_EXHDR(value)}; }

void appendSourceMember(const ElasticSearchConnector *connector, std::string &body)
{
    const bool typeWanted = connector->fillColumns[DocType];
    if (!connector->fillColumns[DocContent]) {
        body += typeWanted ? R"(,"_source":"type")" : R"(,"_source":false)";
        return;
    }
    if (connector->sourceIncludeFilter == NIL && connector->sourceExcludeFilter == NIL)
        return; // the whole source, which is the default

    body += R"(,"_source":{)";
    if (connector->sourceIncludeFilter != NIL || typeWanted) {
        bool comma = false;
        body += R"("includes":[)";
        StringListToJson(body, connector->sourceIncludeFilter, comma);
        if (typeWanted)
            body += comma ? R"(,"type")" : R"("type")";
        body += connector->sourceExcludeFilter == NIL ? "]}" : "],";
    }
    if (connector->sourceExcludeFilter != NIL) {
        bool comma = false;
        body += R"("excludes":[)";
        StringListToJson(body, connector->sourceExcludeFilter, comma);
        body += "]}";
    }
}

// What goes before the query object: its name, within the document-type filter if there is one.
void openQuery(const ElasticSearchConnector *connector, std::string &body)
{
    if (connector->docTypeFilterOpen)
        body.append(connector->docTypeFilterOpen).append(R"("must":)");
    else
        body += R"("query":)";
}

void closeQuery(const ElasticSearchConnector *connector, std::string &body)
{
    if (connector->docTypeFilterClose)
        body += connector->docTypeFilterClose;
}

// From version 7 on a search counts no further than this, unless it is asked to; a scroll always counts all.
constexpr int64 LeastEstimatedTotal = 10000;

// Only an exact total tells whether a request of standard mode found more than it may return.
void askForExactTotal(const ElasticSearchConnector *connector, std::string &body)
{
    if (connector->connectorType == qm::pgFdw::ConnectorTypes::ElasticSearchStd &&
        connector->dialect->countsOnDemandOnly)
        body += R"(,"track_total_hits":true)";
}

void appendSize(std::string &body, int64 size) { body += R"(,"size":)" + std::to_string(size); }

void appendQuery(const ElasticSearchConnector *connector, std::string &body)
{
    openQuery(connector, body);
    if (!connector->query)
        throw std::logic_error("a query search without a query");
    body += connector->query;
    closeQuery(connector, body);
    appendSize(body, requestSize(connector));
    if (requestSize(connector) >= LeastEstimatedTotal)
        askForExactTotal(connector, body);
    if (connector->highlight)
        body.append(R"(,"highlight":)").append(connector->highlight);
}

// Writes a look-up of at most so many ids and returns how many it has; the size goes behind it.
int64 appendIdLookUp(ElasticSearchConnector *connector, std::string &body, int64 most)
{
    openQuery(connector, body);
    body += R"({"terms":{"_id":[)";
    int64 written = 0;
    for (; written < most && connector->docNames.left() > 0; ++written) {
        if (written > 0)
            body += ',';
        appendString(body, viewOf(connector->docNames.take()));
    }
    body += "]}}";
    closeQuery(connector, body);
    return written;
}

} // namespace

int64 requestSize(const ElasticSearchConnector *connector)
{
    return connector->limit >= 0 && connector->limit < connector->batchSize ? connector->limit
                                                                            : connector->batchSize;
}

void appendString(std::string &out, std::string_view utf8)
{
    if (!zq::elasticsearch::appendJsonString(out, utf8))
        throw FdwError(ERRCODE_FDW_INVALID_HANDLE, "utf8 to json conversion error");
}

void StringListToJson(std::string &out, List *list, bool &comma)
{
    ListCell *cell;
    foreach (cell, list) {
        if (comma)
            out += ',';
        appendString(out, viewOf(static_cast<text *>(lfirst(cell))));
        comma = true;
    }
}

void AppendBasePostContent(ElasticSearchConnector *connector, std::string &body, bool &hasIds, bool allIds)
{
    hasIds = true;
    switch (connector->searchMode) {
    case SearchByQuery:
        appendQuery(connector, body);
        break;
    case SearchByDocName: {
        const int64 size = requestSize(connector);
        const int64 ids = appendIdLookUp(connector, body, allIds ? connector->docNames.left() : size);
        appendSize(body, allIds ? size : ids);
        askForExactTotal(connector, body);
        hasIds = ids > 0;
        break;
    }
    default:
        throw FdwError(ERRCODE_FDW_ERROR, "Unsupported search mode " + body);
    }
    appendSourceMember(connector, body);
}

} // namespace qm::pgFdwElaticSearch
