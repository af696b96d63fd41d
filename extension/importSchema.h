// IMPORT FOREIGN SCHEMA of veltranesearch.
#pragma once

#include "server/serverApi.h"

namespace qm::extension
{

List *importForeignSchema(ImportForeignSchemaStmt *statement, Oid serverId);

} // namespace qm::extension
