// The JSON body of a search request.
#pragma once

#include "quelmoraPgFdwElasticSearchConnector.h"

#include <string>

namespace qm::pgFdwElaticSearch
{

// How many documents one request may return: the batch size, or the row limit where that is smaller.
int64 requestSize(const ElasticSearchConnector *connector);

// Appends the elements of a list of text datums as quoted JSON strings; a comma goes before an element when
// `comma` is true, which it is after each. Throws FdwError HV00B for text that is not valid UTF-8.
void StringListToJson(std::string &out, List *list, bool &comma);

// Appends a quoted JSON string. Throws FdwError HV00B for text that is not valid UTF-8.
void appendString(std::string &out, std::string_view utf8);

// Appends the members of the search object to `body`. `hasIds` becomes whether there is anything to ask for:
// false for an id look-up without ids. `allIds` puts every id into the request, otherwise at most as many as
// one request may return; the ids sent leave the connector's docNames.
void AppendBasePostContent(ElasticSearchConnector *connector, std::string &body, bool &hasIds, bool allIds);

} // namespace qm::pgFdwElaticSearch
