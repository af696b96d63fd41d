// The options of veltranesearch: of foreign servers, user mappings, foreign tables and their columns.
#pragma once

#include "search/cluster.h"
#include "server/serverApi.h"

#include <string>

namespace qm::extension
{

// What becomes of a response that lacks hits because shards failed or time ran out.
enum class PartialResults { Error, Warning };

// The options of a foreign table and of what it belongs to, with the defaults of those that are not set.
// Texts are in UTF-8.
struct TableOptions {
    search::Cluster cluster;
    double requestCost = 0;
    double rowCost = 0;

    std::string indices; // as they stand in a path
    std::int32_t batchSize = 0;
    std::int32_t compressionLevel = 0;
    std::string scrollTimeout;
    PartialResults partialResults = PartialResults::Error;
    double estimatedRows = 0;
};

// Reads the options of a table and its server, but not of a user mapping: what planning needs. Throws
// FdwError for a value that an option does not take, and for a required one that is not set.
TableOptions readTableOptions(Oid tableId);

// Reads all of them, those of the user's mapping or else of the public one included.
TableOptions readOptions(Oid tableId, Oid userId);

// Checks the options of an object as DDL hands them over: names, values, and that what is required is there.
// Throws FdwError.
void validateOptions(List *definitions, Oid catalog);

} // namespace qm::extension
