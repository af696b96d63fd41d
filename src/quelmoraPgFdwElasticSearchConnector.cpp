// Construction of a scan's connector from the plan, the clauses' values and the table's options.
#include "quelmoraPgFdwElasticSearchConnector.h"
#include "clauses.h"
#include "limit.h"
#include "options.h"
#include "parameters.h"
#include "request.h"
#include "server/encoding.h"
#include "server/memory.h"

#include <cstring>
#include <string_view>
#include <unordered_set>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::ConnectorTypes;
using server::callServer;
using server::FdwError;
using server::replaceString;

namespace
{

// The plan-time description: an int64 row limit, six flags, two zero bytes, in host byte order.
constexpr size_t DescriptionSize = 16;
constexpr size_t DescriptionFlags = 8;

std::string docTypeFilter(const std::list<std::string> &docTypes)
{
    std::string filter = R"("query":{"bool":{"filter":{"terms":{"type":[)";
    char separator = ' ';
    for (const std::string &docType : docTypes) {
        filter += separator;
        appendString(filter, callServer([&] { return server::serverToUtf8(docType.c_str()); }));
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
    connector->rowContext = AllocSetContextCreate(scanContext, "Elasticsearch row", ALLOCSET_DEFAULT_SIZES);
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
    for (const std::string &name : docNames)
        if (oneRequest || seen.insert(name).second)
            names.push_back(name.c_str());
    connector->docNames.count = static_cast<int64>(names.size());
    callServer([&] {
        connector->docNames.ids = static_cast<text **>(
            MemoryContextAllocHuge(connector->scanContext, (names.size() + 1) * sizeof(text *)));
        text **next = connector->docNames.ids;
        for (const char *name : names)
            *next++ = cstring_to_text(server::serverToUtf8(name));
    });
}

} // namespace

void CreateConnectorStep1(List **clauses, PathTarget *target, unsigned int foreignTableId,
                          std::vector<char> &description, List *&fdwExprs, PlannerInfo *root)
{
    description.assign(DescriptionSize, 0);
    std::unique_ptr<std::list<std::string>> docNames;
    std::list<std::string> params;
    std::list<std::string> docTypes;
    ScanExpressions(clauses, foreignTableId, fdwExprs, docNames, params, docTypes, nullptr, true);
    const int64 limit = *clauses == NIL ? planRowLimit(root, foreignTableId, fdwExprs) : -1;
    std::memcpy(description.data(), &limit, sizeof limit);

    char *flags = description.data() + DescriptionFlags;
    server::withTupleDesc(foreignTableId, [&](tupleDesc *descriptor) {
        ListCell *cell;
        foreach (cell, target->exprs)
            qm::pgFdw::parseVarName(static_cast<Expr *>(lfirst(cell)), descriptor,
                                    parseEsSearchVarNameCallback, flags);
    });
}

ElasticSearchConnector *CreateConnectorStep2(char *description, unsigned int tableOid, ConnectorTypes type,
                                             ForeignScanState *node)
{
    if (!qm::pgFdw::isValidConnectorType(type))
        return nullptr;

    ElasticSearchConnector *connector = callServer([] { return allocateConnector(); });
    server::MemoryContextScope scope(connector->scanContext);
    connector->page = server::makeIn<search::Page>(connector->scanContext, connector->scanContext);
    connector->connection = server::makeIn<http::Settings>(connector->scanContext);

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
    connector->dialect = &dialectOf(0);
    connector->paramCompressionLevel = -3;
    connector->tableOid = tableOid;
    connector->limit = -1;

    ParseParam(params, connector->paramCompressionLevel, connector->query, connector->highlight,
               connector->sourceIncludeFilter, connector->sourceExcludeFilter);
    if (docNames && connector->query)
        throw FdwError(ERRCODE_FDW_ERROR, "docname and query clause not supported on same select");
    if (connector->highlight && !connector->query)
        throw FdwError(ERRCODE_FDW_ERROR, "'highlight' param could only be used with 'query' param");

    if (description)
        readDescription(connector, description);

    if (!docTypes.empty()) {
        replaceString(connector->docTypeFilterOpen, docTypeFilter(docTypes).c_str());
        replaceString(connector->docTypeFilterClose, "}}");
    }

    if (!connector->query) {
        if (!docNames)
            throw FdwError(ERRCODE_FDW_ERROR, "need docname or query clause");
        connector->searchMode = SearchByDocName;
    }

    readTableOptions(connector);
    readConnectionOptions(connector, server::userOfScan(node));
    if (docNames)
        appendDocNames(connector, *docNames);
    return connector;
}

} // namespace qm::pgFdwElaticSearch
