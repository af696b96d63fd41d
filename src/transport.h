// Every exchange with the search cluster, judged.
#pragma once

#include "quelmoraPgFdwElasticSearchConnector.h"
#include "quelmoraPgFdwElasticSearchResultParsers.h"

#include <string>

namespace qm::pgFdwElaticSearch
{

// libcurl's write callback: feeds the parser (a SearchResultParser). Returns the number of bytes taken, 0 to
// end the transfer.
size_t CurlWriteCallback(char *data, size_t size, size_t count, void *parser);

// Sends one request (POST with a body, else GET; DELETE with the flag), streams the response into the parser,
// and hands its hits over to the connector's page. Without a parser the response is dropped and no failure is
// reported.
void DoCurlRequest(ElasticSearchConnector *connector, const std::string &url, const std::string &body,
                   qm::pgFdw::SearchResultParser *parser, bool deleteRequest);

} // namespace qm::pgFdwElaticSearch
