// The options: of the foreign table, of the foreign server, of the user mapping.
#pragma once

#include "quelmoraPgFdwElasticSearchConnector.h"

namespace qm::pgFdwElaticSearch
{

// [server side] The table's connector type, 0 when its options name none.
int32 findConnectorType(Oid foreignTableId);

// Reads the options of the connector's table into the record, in the current memory context. Throws FdwError
// for a value that an option does not take. A name that no option has is passed over.
void readTableOptions(ElasticSearchConnector *connector);

// Reads those of the table's foreign server and of the user's mapping, or else of the public one, and decides
// where the requests go: where the table says, or else the server. Throws FdwError where neither does, and
// where credentials would go to another place than the server's own: whoever may create a table on it must
// not be able to send them elsewhere.
void readConnectionOptions(ElasticSearchConnector *connector, Oid userId);

} // namespace qm::pgFdwElaticSearch
