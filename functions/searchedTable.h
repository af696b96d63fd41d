// The foreign table whose indices a function searches.
#pragma once

#include "extension/options.h"
#include "search/clusterSession.h"

#include <memory>

namespace qm::functions
{

struct SearchedTable {
    extension::TableOptions options;
    std::shared_ptr<search::ClusterSession> session;
};

// Locks the table, as below, and throws as below.
void lockSearchedTable(Oid relation);

// Locks the table until the end of the transaction, as a SELECT does. Throws FdwError where the relation is
// no foreign table of veltranesearch, and where the current user, as whom it is searched, must not read all
// of it.
SearchedTable searchedTable(Oid relation);

// Whether a foreign-data wrapper is veltranesearch, by whatever name. Throws ServerError.
bool isSearchWrapper(Oid wrapper);

} // namespace qm::functions
