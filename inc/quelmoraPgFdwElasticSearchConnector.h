// The Elasticsearch connector: its record, and the operations that the planner and executor callbacks call.
// Unless a comment says "[server side]", a function throws FdwError or ServerError and raises nothing.
#pragma once

#include "columns.h"
#include "dialect.h"
#include "http/settings.h"
#include "quelmoraPgFdwConnectorBase.h"
#include "search/page.h"

#include <vector>

namespace qm::pgFdwElaticSearch
{

enum SearchMode : int32 {
    SearchByQuery = 1,   // a "query" parameter was given
    SearchByDocName = 2, // documents are looked up by id
};

// What becomes of a response that lacks hits because shards failed or time ran out.
enum class PartialResults : int32 { Ignore, Warning, Error };

// The ids to look up, texts in UTF-8, of which some have been sent.
struct IdQueue {
    text **ids;
    int64 count;
    int64 taken;

    int64 left() const { return count - taken; }
    // The next id, of which there must be one.
    const text *take() { return ids[taken++]; }
};

// The state of one scan: plain data in a memory context of its own below the per-query one, which holds
// everything that it points at. Strings are NUL-terminated. Made by CreateConnectorStep2, freed by EndScan.
struct ElasticSearchConnector {
    qm::pgFdw::ConnectorTypes connectorType;
    SearchMode searchMode;
    IdQueue docNames;
    search::Page *page; // the rows that are fetched and not returned yet

    char *address;
    char *port;
    char *indexList;
    char *docTypeFilterOpen; // JSON that wraps the query object in a filter; null without a filter
    char *docTypeFilterClose;
    List *sourceIncludeFilter; // text
    List *sourceExcludeFilter; // text
    char *query;               // JSON object, as given
    char *highlight;           // JSON object, as given
    int32 batchSize;           // documents per request
    int64 limit;               // rows that the whole query needs; -1: no limit is known
    int32 compressionLevel;
    int32 paramCompressionLevel; // -3: not given
    Oid tableOid;
    int64 totalHits;
    int64 rowsReturned;
    int64 pagesFetched;
    char *scrollTimeout;
    char *scrollId; // of the open scroll context; null when there is none
    bool scrollStarted;
    bool fillColumns[ColumnCount];      // to be collected from the responses
    bool requestedColumns[ColumnCount]; // referenced by the query
    bool fullErrorMsg;
    const Dialect *dialect; // of the search servers
    PartialResults partialResults;

    Oid serverOid; // the table's foreign server
    char *serverAddress;
    char *serverPort;
    http::Settings *connection; // what the server and the user mapping add
    ColumnShape shapes[ColumnCount];
    MemoryContext scanContext; // holds the record and what lives as long as it
    MemoryContext rowContext;  // the values of the current row; emptied for each row
    server::DeflateStream deflateStream;
};

// Packs what the planner knows into the 16 bytes of `description`: the row limit, one flag for each column
// that the target list references, two zero bytes. Moves the clauses that the connector carries out from
// `clauses` to `fdwExprs`.
void CreateConnectorStep1(List **clauses, PathTarget *target, unsigned int foreignTableId,
                          std::vector<char> &description, List *&fdwExprs, PlannerInfo *root);

// Builds the record of a scan below the current memory context from the plan-time description (16 bytes or
// null), the clauses' values and the table's options. Null when `type` is invalid. Sends nothing.
ElasticSearchConnector *CreateConnectorStep2(char *description, unsigned int tableOid,
                                             qm::pgFdw::ConnectorTypes type, ForeignScanState *node);

// Decides which columns the fetchers collect, and refuses a table whose columns cannot take the values.
void BeginScan(ElasticSearchConnector *connector, ForeignScanState *node);

// Puts the next row into the cleared slot, or leaves it empty at the end of the scan. The row's values live
// until the next call.
void IterateScan(ElasticSearchConnector *connector, ForeignScanState *node, TupleTableSlot *&slot);

// Deletes an open scroll context on the search server and frees the record.
void EndScan(ElasticSearchConnector *connector, ForeignScanState *node);

} // namespace qm::pgFdwElaticSearch
