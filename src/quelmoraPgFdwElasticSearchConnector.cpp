// Construction of a scan's connector from the plan, the clauses' values and the table's options.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwElasticSearchJson.h"
#include "quelmoraPgFdwEncoding.h"

#include <cstring>
#include <string_view>
#include <unordered_set>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::ConnectorTypes;
using qm::pgFdw::FdwError;

namespace
{

std::string docTypeFilter(const std::list<std::string> &docTypes)
{
    std::string filter = R"("query":{"bool":{"filter":{"terms":{"type":[)";
    char separator = ' ';
    for (const std::string &docType : docTypes) {
        filter += separator;
        filter += '"';
        const char *utf8 = callServer([&] { return serverToUtf8(docType.c_str()); });
        if (!Utf8ToJson(utf8, utf8 + std::strlen(utf8), filter))
            throw FdwError(ERRCODE_FDW_INVALID_HANDLE, "utf8 to json conversion error");
        filter += '"';
        separator = ',';
    }
    return filter + "]}},";
}

// [server side] A zeroed record with its memory contexts below the current one.
ElasticSearchConnector *allocateConnector()
{
    MemoryContext scanContext =
        AllocSetContextCreate(CurrentMemoryContext, "Elasticsearch scan", ALLOCSET_DEFAULT_SIZES);
    auto *connector = static_cast<ElasticSearchConnector *>(
        MemoryContextAllocZero(scanContext, sizeof(ElasticSearchConnector)));
    connector->scanContext = scanContext;
    connector->pageContext = AllocSetContextCreate(scanContext, "Elasticsearch page", ALLOCSET_DEFAULT_SIZES);
    connector->rowContext = AllocSetContextCreate(scanContext, "Elasticsearch row", ALLOCSET_DEFAULT_SIZES);
    connector->page.attach(scanContext);
    connector->deflateStream.context = scanContext;
    return connector;
}

void readDescription(ElasticSearchConnector *connector, const char *description)
{
    std::memcpy(&connector->limit, description, sizeof connector->limit);
    for (int column = 0; column < ColumnCount; ++column)
        connector->requestedColumns[column] |= description[DescriptionFlags + column] != 0;
}

void appendDocNames(ElasticSearchConnector *connector, const std::list<std::string> &docNames)
{
    // Within one request an id that is named twice is found once. In two requests it would be found twice.
    const bool oneRequest = connector->connectorType == ConnectorTypes::ElasticSearchScroll ||
                            static_cast<int64>(docNames.size()) <= requestSize(connector);
    std::unordered_set<std::string_view> seen;
    std::vector<const char *> names;
    for (const std::string &name : docNames) {
        if (oneRequest || seen.insert(name).second)
            names.push_back(name.c_str());
    }
    connector->docNames.reserve(
        names.size(), [&](Size size) { return qm::pgFdw::allocateOrThrow(connector->scanContext, size); });
    callServer([&] {
        for (const char *name : names)
            connector->docNames.append(PointerGetDatum(cstring_to_text(serverToUtf8(name))));
    });
}

} // namespace

int32 findConnectorType(Oid foreignTableId)
{
    ListCell *cell;
    foreach (cell, GetForeignTable(foreignTableId)->options) {
        auto *option = static_cast<DefElem *>(lfirst(cell));
        if (std::strcmp(option->defname, "connectortype") != 0)
            continue;
        const char *value = defGetString(option);
        if (std::strcmp(value, "elasticsearch") == 0)
            return static_cast<int32>(ConnectorTypes::ElasticSearchStd);
        if (std::strcmp(value, "elasticsearchscroll") == 0)
            return static_cast<int32>(ConnectorTypes::ElasticSearchScroll);
    }
    return 0;
}

ElasticSearchConnector *CreateConnectorStep2(char *description, unsigned int tableOid, ConnectorTypes type,
                                             ForeignScanState *node)
{
    if (!qm::pgFdw::isValidConnectorType(type))
        return nullptr;

    ElasticSearchConnector *connector = callServer([] { return allocateConnector(); });
    qm::pgFdw::MemoryContextScope scope(connector->scanContext);

    std::unique_ptr<std::list<std::string>> docNames;
    std::list<std::string> params;
    std::list<std::string> docTypes;
    List *leftoverExprs = NIL;
    ScanExpressions(&reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_exprs, tableOid, leftoverExprs,
                    docNames, params, docTypes, node, false);
    if (leftoverExprs != NIL)
        throw FdwError(ERRCODE_FDW_ERROR, "Error while deparsing query clauses");

    connector->connectorType = type;
    connector->searchMode = SearchByQuery;
    connector->batchSize = 10;
    connector->compressionLevel = 5;
    connector->paramCompressionLevel = -3;
    connector->tableOid = tableOid;
    connector->limit = -1;
    connector->partialResults = PartialResults::Warning;

    ParseParam(params, connector->paramCompressionLevel, connector->query, connector->highlight,
               connector->sourceIncludeFilter, connector->sourceExcludeFilter);
    if (docNames && connector->query)
        throw FdwError(ERRCODE_FDW_ERROR, "docname and query clause not supported on same select");
    if (connector->highlight && !connector->query)
        throw FdwError(ERRCODE_FDW_ERROR, "'highlight' param could only be used with 'query' param");

    if (description)
        readDescription(connector, description);
    connector->scrollTimeout = replaceString(nullptr, "5m");
    connector->indexList = replaceString(nullptr, "_all");

    if (!docTypes.empty()) {
        connector->docTypeFilterOpen = replaceString(nullptr, docTypeFilter(docTypes).c_str());
        connector->docTypeFilterClose = replaceString(nullptr, "}}");
    }

    if (!connector->query) {
        if (!docNames)
            throw FdwError(ERRCODE_FDW_ERROR, "need docname or query clause");
        connector->searchMode = SearchByDocName;
    }

    readTableOptions(connector);
    readConnectionOptions(connector->connection, connector->serverOid, qm::pgCompat::userOfScan(node));
    settlePlace(connector);
    if (docNames)
        appendDocNames(connector, *docNames);
    return connector;
}

} // namespace qm::pgFdwElaticSearch
