// What the connector's own sources share with each other and with nobody else.
#pragma once

#include "quelmoraPgFdwElasticSearchConnector.h"
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <string>

namespace qm::pgFdwElaticSearch
{

// The plan-time description: an int64 row limit, six flags, two zero bytes, in host byte order.
constexpr size_t DescriptionSize = 16;
constexpr size_t DescriptionFlags = 8;

// ---- clauses -------------------------------------------------------------------------------------------

// How many rows of the scan the whole query needs at most, if its LIMIT says so: -1 unless every row that the
// search returns is a row of the query, in the query's order. The scan must have no conditions of its own
// left; `pushed` are those that the search carries out.
int64 planRowLimit(PlannerInfo *root, Oid foreignTableId, List *pushed);

// Sets the flags, among the six at `flags`, of the known columns that occur anywhere in the expression; a
// whole-row reference sets all of them.
void flagReferencedColumns(Node *expression, tupleDesc *descriptor, void *flags);

// A compression level as options and parameters give it; text that is no number counts as 0.
// Throws FdwError when it is out of range.
int parseCompressionLevel(const char *text);

// A copy of `text` in the current memory context in place of `previous` (may be null), which is freed.
char *replaceString(char *previous, const char *text);

// Appends the string to a list of text datums.
List *appendText(List *list, const char *string);

// ---- options -------------------------------------------------------------------------------------------

// Reads the options of the connector's table into the record, in the current memory context. Throws FdwError
// for a value that an option does not take.
void readTableOptions(ElasticSearchConnector *connector);

// Decides where the requests go: where the table says, or else the server. Throws FdwError where neither does,
// and where credentials would go to another place than the server's own: whoever may create a table on it must
// not be able to send them elsewhere.
void settlePlace(ElasticSearchConnector *connector);

// Whether the search servers are told to be of that major version or a later one.
inline bool speaksVersion(const ElasticSearchConnector *connector, int32 version)
{
    return connector->esVersion >= version;
}

// ---- request -------------------------------------------------------------------------------------------

// How many documents one request may return: the batch size, or the row limit where that is smaller.
int64 requestSize(const ElasticSearchConnector *connector);

// Appends the elements of a list of text datums as quoted JSON strings; a comma goes before an element when
// `comma` is true, which it is after each. Throws FdwError HV00B for text that is not valid UTF-8.
void StringListToJson(std::string &out, List *list, bool &comma);

// Appends the members of the search object to `body`. `hasIds` becomes whether there is anything to ask for:
// false for an id look-up without ids. `allIds` puts every id into the request, otherwise at most as many as
// one request may return; the ids sent leave the connector's docNames.
void AppendBasePostContent(ElasticSearchConnector *connector, std::string &body, bool &hasIds, bool allIds);

// ---- transport -----------------------------------------------------------------------------------------

// libcurl's write callback: feeds the parser (a SearchResultParser, or null to drop the bytes). Returns the
// number of bytes taken, 0 to end the transfer.
size_t CurlWriteCallback(char *data, size_t size, size_t count, void *parser);

// Sends one request (POST with a body, else GET; DELETE with the flag), streams the answer into the parser,
// which collects in the connector's page memory, and hands its hits over to the connector's empty queues.
// Without a parser the answer is dropped and no failure but an interrupt is reported.
void DoCurlRequest(ElasticSearchConnector *connector, const std::string &url, const std::string &body,
                   qm::pgFdw::SearchResultParser *parser, bool deleteRequest);

// ---- fetching ------------------------------------------------------------------------------------------

// Fill the result queues; nothing is added when there is nothing more to fetch.
void UpdateConnectorCacheStdMode(ElasticSearchConnector *connector);
void UpdateConnectorCacheScrollMode(ElasticSearchConnector *connector);

// Deletes the scroll context of the connector's scrollId, which must be set, on the search server. A failed
// deletion is no error: the context expires there.
void DeleteScroll(ElasticSearchConnector *connector);

} // namespace qm::pgFdwElaticSearch
