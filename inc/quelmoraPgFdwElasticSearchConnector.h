// The Elasticsearch connector: its record, and the operations that the planner and executor callbacks call.
// Unless a comment says "[server side]", a function throws FdwError or ServerError and raises nothing.
#pragma once

#include "quelmoraPgFdwConnection.h"
#include "quelmoraPgFdwConnectorBase.h"
#include "quelmoraPgFdwDatumQueue.h"
#include "quelmoraPgFdwPageMemory.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace qm::pgFdwElaticSearch
{

// The six columns; the number is the index of a column's flag and its position in a row.
enum Column { DocName, DocContent, Score, DocType, Highlights, ParamColumn, ColumnCount };

enum SearchMode : int32 {
    SearchByQuery = 1,   // a "query" parameter was given
    SearchByDocName = 2, // documents are looked up by id
};

// What becomes of an answer that lacks hits because shards failed or time ran out.
enum class PartialResults : int32 { Ignore, Warning, Error };

// The state of one scan: plain data in a memory context of its own below the per-query one, which holds
// everything that it points at. Strings are NUL-terminated. Made by CreateConnectorStep2, freed by EndScan.
struct ElasticSearchConnector {
    qm::pgFdw::ConnectorTypes connectorType;
    SearchMode searchMode;
    qm::pgFdw::DatumQueue docNames; // text: the ids that are still to be looked up

    // Fetched rows that are not returned yet. Every queue that is filled holds one entry per document, in the
    // same order; an empty resultDocNames means that no row is buffered.
    qm::pgFdw::DatumQueue resultDocNames;    // text
    qm::pgFdw::DatumQueue resultDocContents; // text, uncompressed, in UTF-8
    qm::pgFdw::DatumQueue resultScores;      // float4
    qm::pgFdw::DatumQueue resultDocTypes;    // text
    qm::pgFdw::DatumQueue resultHighlights;  // text, uncompressed, in UTF-8

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
    bool fillColumns[ColumnCount];      // to be collected from the answers
    bool requestedColumns[ColumnCount]; // referenced by the query
    bool fullErrorMsg;
    int32 esVersion; // major version of the search servers; 0: not told
    PartialResults partialResults;

    Oid serverOid;                 // the table's foreign server
    ConnectionSettings connection; // what it and the user mapping add
    bool wrapInArray[ColumnCount]; // the table declares this column as an array of the value's type
    bool holdsText[ColumnCount];   // the table declares this column as something else than bytea
    bool holdsJson[ColumnCount];   // as json
    MemoryContext scanContext;     // holds the record and what lives as long as it
    qm::pgFdw::PageMemory page;    // the rows in the queues; emptied before each request
    MemoryContext pageContext;     // what of them had to be converted; emptied before each refill
    MemoryContext rowContext;      // the values of the current row; emptied for each row
    qm::pgFdw::DeflateStream deflateStream;
};

// ---- planning ------------------------------------------------------------------------------------------

// [server side] The table's connector type, 0 when its options name none.
int32 findConnectorType(Oid foreignTableId);

// Moves the clauses that the connector carries out from `clauses` to `fdwExprs`, and packs what the planner
// knows into the 16 bytes of `description`: the row limit, one flag for each column that the target list
// references, two zero bytes.
void CreateConnectorStep1(List **clauses, PathTarget *target, unsigned int foreignTableId,
                          std::vector<char> &description, List *&fdwExprs, PlannerInfo *root);

// Sets the flag of the named column among the six at `flags`; warns of any other column (22023).
void parseEsSearchVarNameCallback(const char *columnName, void *flags);

// ---- clauses and parameters ----------------------------------------------------------------------------

// Finds the clauses on docname, param and doctype. At plan time (`node` null) they are moved from `clauses`
// to `pushedClauses` if `removeMatched`; at scan start (`node` set) their values are extracted. The docname
// list is created by the first docname clause, even one without values.
void ScanExpressions(List **clauses, unsigned int relationId, List *&pushedClauses,
                     std::unique_ptr<std::list<std::string>> &docNameValues,
                     std::list<std::string> &paramValues, std::list<std::string> &docTypeValues,
                     ForeignScanState *node, bool removeMatched);

// Reads `name=value` parameters into the connector's settings; strings and lists are allocated in the
// current memory context.
void ParseParam(const std::list<std::string> &paramValues, int &paramCompressionLevel, char *&query,
                char *&highlight, List *&sourceIncludeFilter, List *&sourceExcludeFilter);

// ---- scan ----------------------------------------------------------------------------------------------

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
