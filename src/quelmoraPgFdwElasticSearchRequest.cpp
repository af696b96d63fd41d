// The JSON body of a search request, put together by plain appends: what a query gives as JSON goes into it
// unchanged.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwElasticSearchJson.h"

#include <stdexcept>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::FdwError;

namespace
{

// Reads a text datum without asking the server: ours are never toasted.
void appendJsonString(std::string &out, Datum value)
{
    const auto *string = reinterpret_cast<const text *>(DatumGetPointer(value));
    const char *bytes = VARDATA_ANY(string);
    out += '"';
    if (!Utf8ToJson(bytes, bytes + VARSIZE_ANY_EXHDR(string), out))
        throw FdwError(ERRCODE_FDW_INVALID_HANDLE, "utf8 to json conversion error");
    out += '"';
}

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
        speaksVersion(connector, 7))
        body += R"(,"track_total_hits":true)";
}

void appendQuery(const ElasticSearchConnector *connector, std::string &body)
{
    openQuery(connector, body);
    if (!connector->query)
        throw std::logic_error("a query search without a query");
    body += connector->query;
    closeQuery(connector, body);
    body += R"(,"size":)" + std::to_string(requestSize(connector));
    if (requestSize(connector) >= LeastEstimatedTotal)
        askForExactTotal(connector, body);
    if (connector->highlight)
        body.append(R"(,"highlight":)").append(connector->highlight);
}

// Returns the number of ids written.
int64 appendIdLookUp(ElasticSearchConnector *connector, std::string &body, bool allIds)
{
    openQuery(connector, body);
    body += R"({"terms":{"_id":[)";

    const int64 most = allIds ? connector->docNames.length() : requestSize(connector);
    int64 written = 0;
    for (; written < most && !connector->docNames.isEmpty(); ++written) {
        if (written > 0)
            body += ',';
        const Datum id = connector->docNames.take();
        appendJsonString(body, id);
        pfree(DatumGetPointer(id));
    }
    body += "]}}";
    closeQuery(connector, body);
    body += R"(,"size":)" + std::to_string(allIds ? requestSize(connector) : written);
    askForExactTotal(connector, body);
    return written;
}

} // namespace

int64 requestSize(const ElasticSearchConnector *connector)
{
    return connector->limit >= 0 && connector->limit < connector->batchSize ? connector->limit
                                                                            : connector->batchSize;
}

void StringListToJson(std::string &out, List *list, bool &comma)
{
    ListCell *cell;
    foreach (cell, list) {
        if (comma)
            out += ',';
        appendJsonString(out, PointerGetDatum(lfirst(cell)));
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
    case SearchByDocName:
        hasIds = appendIdLookUp(connector, body, allIds) > 0;
        break;
    default:
        throw FdwError(ERRCODE_FDW_ERROR, "Unsupported search mode " + body);
    }
    appendSourceMember(connector, body);
}

} // namespace qm::pgFdwElaticSearch
