// Where the rows come from: the requests of a scan.
#pragma once

#include "quelmoraPgFdwElasticSearchConnector.h"

namespace qm::pgFdwElaticSearch
{

// Fill the page; nothing is added when there is nothing more to fetch.
void UpdateConnectorCacheStdMode(ElasticSearchConnector *connector);
void UpdateConnectorCacheScrollMode(ElasticSearchConnector *connector);

// Deletes the scroll context of the connector's scrollId, which must be set, on the search server. A failed
// deletion is no error: the context expires there.
void DeleteScroll(ElasticSearchConnector *connector);

} // namespace qm::pgFdwElaticSearch
