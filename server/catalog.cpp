// What the server's catalogs say.
#include "server/catalog.h"

#include <initializer_list>

namespace qm::server
{

List *userMappingOptions(Oid serverId, Oid userId)
{
    HeapTuple tuple = nullptr;
    for (const Oid user : {userId, InvalidOid}) {
        tuple = SearchSysCache2(USERMAPPINGUSERSERVER, ObjectIdGetDatum(user), ObjectIdGetDatum(serverId));
        if (HeapTupleIsValid(tuple))
            break;
    }
    if (!HeapTupleIsValid(tuple))
        return NIL;
    bool isNull;
    const Datum stored =
        SysCacheGetAttr(USERMAPPINGUSERSERVER, tuple, Anum_pg_user_mapping_umoptions, &isNull);
    List *options = isNull ? NIL : untransformRelOptions(stored);
    ReleaseSysCache(tuple);
    return options;
}

bool hasUserMapping(Oid serverId, Oid userId)
{
    return SearchSysCacheExists2(USERMAPPINGUSERSERVER, ObjectIdGetDatum(userId), ObjectIdGetDatum(serverId));
}

} // namespace qm::server
