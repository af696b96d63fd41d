// The foreign table whose indices a function searches.
#include "server/errorBoundary.h"

#include "extension/scan.h"
#include "functions/searchedTable.h"

namespace qm::functions
{

using server::callServer;
using server::FdwError;

namespace
{

// The name of the relation; empty when there is none of that kind.
std::string nameOfForeignTable(Oid relation)
{
    const char *name = callServer([&]() -> const char * {
        LockRelationOid(relation, AccessShareLock);
        return get_rel_relkind(relation) == RELKIND_FOREIGN_TABLE ? get_rel_name(relation) : nullptr;
    });
    return name ? name : "";
}

bool isOfSearchWrapper(Oid table)
{
    return isSearchWrapper(
        callServer([&] { return GetForeignServer(GetForeignServerIdByRelId(table))->fdwid; }));
}

} // namespace

bool isSearchWrapper(Oid wrapper)
{
    return callServer([&] {
        const Oid handler = GetForeignDataWrapper(wrapper)->fdwhandler;
        return OidIsValid(handler) && GetFdwRoutine(handler)->BeginForeignScan == extension::beginForeignScan;
    });
}

void lockSearchedTable(Oid relation)
{
    const std::string name = nameOfForeignTable(relation);
    if (name.empty() || !isOfSearchWrapper(relation))
        throw FdwError(ERRCODE_WRONG_OBJECT_TYPE,
                       "the relation is no foreign table of the wrapper veltranesearch")
            .detailed(name.empty() ? "" : "\"" + name + "\" is one of another wrapper.");
    if (callServer([&] { return pg_class_aclcheck(relation, GetUserId(), ACL_SELECT); }) != ACLCHECK_OK)
        throw FdwError(ERRCODE_INSUFFICIENT_PRIVILEGE, "permission denied for foreign table " + name)
            .hinted("The function needs the privilege SELECT on the whole table.");
}

SearchedTable searchedTable(Oid relation)
{
    lockSearchedTable(relation);
    SearchedTable table;
    table.options = extension::readOptions(relation, GetUserId());
    table.session =
        search::ClusterSession::of(table.options.serverId, table.options.userId, table.options.cluster);
    return table;
}

} // namespace qm::functions
