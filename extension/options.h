// The options of veltranesearch: of foreign servers, user mappings, foreign tables and their columns.
#pragma once

#include "extension/mapping.h"
#include "search/cluster.h"
#include "search/partial.h"
#include "server/errorBoundary.h"

#include <string>
#include <vector>

namespace qm::extension
{

using search::PartialResults;

// The options of a foreign table and of what it belongs to, with the defaults of those that are not set.
// Texts are in UTF-8.
struct TableOptions {
    Oid serverId = InvalidOid;
    Oid userId = InvalidOid; // whose mapping was read
    search::Cluster cluster;
    double requestCost = 0;
    double rowCost = 0;

    std::string indices; // as they stand in a path
    std::int32_t batchSize = 0;
    std::int32_t compressionLevel = 0;
    std::string scrollTimeout;
    PartialResults partialResults = PartialResults::Error;
    double estimatedRows = 0;
    bool nullsBadValues = false; // a field's value that does not fit is NULL
};

// How a date is written in a source: in ISO 8601, or as a number of what went by since 1970.
enum class DateFormat { Iso, EpochMillis, EpochSecond };

// What the mapping of the indices makes of a field; None: the search is not asked for it.
enum class MappedType {
    None,
    Keyword,
    Byte,
    Short,
    Integer,
    Long,
    UnsignedLong,
    HalfFloat,
    Float,
    Double,
    ScaledFloat,
    Date,
    Boolean,
    Ip
};

// The options of a column. Texts are in UTF-8.
struct ColumnOptions {
    std::string field; // path in the source; empty: the column's name
    DateFormat dateFormat = DateFormat::Iso;
    MappedType mapped = MappedType::None;
    std::string searchField;              // path in the index; empty: that in the source
    std::int32_t ignoreAbove = INT32_MAX; // UTF-16 units of a keyword that is still indexed
    double scalingFactor = 0;
};

// Reads the options of a table and its server, but not of a user mapping: what planning needs. Throws
// FdwError for a value that an option does not take, and for a required one that is not set.
TableOptions readTableOptions(Oid tableId);

// Reads all of them, those of the user's mapping or else of the public one included.
TableOptions readOptions(Oid tableId, Oid userId);

// Reads those of a column.
ColumnOptions readColumnOptions(Oid tableId, AttrNumber attribute);

// The options by which a column would tell how the search knows the field. Throws FdwError for what no option
// takes.
ColumnOptions columnOptionsFor(const Searchable &searchable);

// Reads those of a foreign server and of the user's mapping or else of the public one.
search::Cluster readCluster(Oid serverId, Oid userId);

// Checks the options of an object as DDL hands them over: names, values, and that what is required is there.
// Throws FdwError.
void validateOptions(List *definitions, Oid catalog);

// What is wrong with the options of an object as the catalogs hold them: names that are not known, of which
// nothing else takes notice, and all that would make the readers above fail.
std::vector<server::FdwError> faultsIn(List *definitions, Oid catalog);

} // namespace qm::extension
