// The columns of a foreign table of veltranesearch, which are known by their names.
#pragma once

#include "server/serverApi.h"

#include <vector>

namespace qm::extension
{

// What a column shows of a hit.
enum class Role { DocName, DocIndex, Score, DocType, DocContent, Highlights, Param };

struct Column {
    AttrNumber attribute;
    Role role;
    Oid type;         // as declared
    Oid baseType;     // below domains
    bool isRequired;  // NOT NULL
    const char *name; // valid as long as the relation's descriptor
};

// The role of a column by its name; false when there is none of that name.
bool findRole(const char *name, Role &role);

// The columns of the descriptor whose attributes are set in `attributes` (as pull_varattnos numbers them; a
// whole-row reference means all). Throws FdwError for a column of a name or a type that there is not, and for
// a system column other than tableoid.
std::vector<Column> readColumns(tupleDesc *descriptor, const Bitmapset *attributes);

} // namespace qm::extension
