// The clauses on docname, param and doctype.
#pragma once

#include "server/serverApi.h"

#include <list>
#include <memory>
#include <string>

namespace qm::pgFdwElaticSearch
{

// Finds the clauses on docname, param and doctype. At plan time (`node` null) they are moved from `clauses`
// to `pushedClauses` if `removeMatched`; at scan start (`node` set) their values are extracted. The docname
// list is created by the first docname clause, even one without values.
void ScanExpressions(List **clauses, unsigned int relationId, List *&pushedClauses,
                     std::unique_ptr<std::list<std::string>> &docNameValues,
                     std::list<std::string> &paramValues, std::list<std::string> &docTypeValues,
                     ForeignScanState *node, bool removeMatched);

} // namespace qm::pgFdwElaticSearch
