// What the server's catalogs say, beyond the functions that it has for it.
#pragma once

#include "server/serverApi.h"

namespace qm::server
{

// [server side] The options of the user's mapping or else of the public one; empty without either.
List *userMappingOptions(Oid serverId, Oid userId);

// [server side] Whether there is a user mapping for exactly this user; InvalidOid: the public one.
bool hasUserMapping(Oid serverId, Oid userId);

} // namespace qm::server
