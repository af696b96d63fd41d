// The six columns of a foreign table: their names, and what a table may declare in their places.
#pragma once

#include "search/values.h"
#include "server/memory.h"

namespace qm::pgFdwElaticSearch
{

// The number is the index of a column's flag and its position in a row.
enum Column { DocName, DocContent, Score, DocType, Highlights, ParamColumn, ColumnCount };

// Sets the flag of the named column among the six at `flags`; warns of any other column (22023).
void parseEsSearchVarNameCallback(const char *columnName, void *flags);

// Sets the flags, among the six at `flags`, of the known columns that occur anywhere in the expression; a
// whole-row reference sets all of them.
void flagReferencedColumns(Node *expression, tupleDesc *descriptor, void *flags);

// How a table declares the column at a position.
struct ColumnShape {
    bool isArray; // of the value's type: a value is an array of one element
    search::Container container;
};

// The shapes of the first six columns, of those that are requested and of the first one. Throws FdwError for
// a column that could not hold the value of its position as it is.
void readColumnShapes(tupleDesc *descriptor, const bool (&requested)[ColumnCount],
                      ColumnShape (&shapes)[ColumnCount]);

} // namespace qm::pgFdwElaticSearch
