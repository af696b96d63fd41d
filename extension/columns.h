// The columns of a foreign table of veltranesearch: some are known by their names, all others show fields.
#pragma once

#include "extension/fieldType.h"
#include "extension/options.h"
#include "server/serverApi.h"

#include <optional>
#include <vector>

namespace qm::extension
{

// What a column shows of a hit.
enum class Role { DocName, DocIndex, Score, DocType, DocContent, Highlights, Param, Field };

struct Column {
    AttrNumber attribute;
    Role role;
    Oid type;         // as declared
    Oid baseType;     // below domains
    bool isRequired;  // NOT NULL
    const char *name; // valid as long as the relation's descriptor
    ColumnOptions options;
    std::string path;               // of the field in the source that a Field or DocType shows, in UTF-8
    std::optional<FieldType> field; // of Role::Field
};

// The role of a column by its name and its option `field` (empty when it is not set): what has no other one,
// or has the option, is a field.
Role roleOf(const char *name, const std::string &field);

// The columns of the descriptor whose attributes are set in `attributes` (as pull_varattnos numbers them; a
// whole-row reference means all). Throws FdwError for a column of a name or a type that there is not, and for
// a system column other than tableoid.
std::vector<Column> readColumns(tupleDesc *descriptor, const Bitmapset *attributes);

} // namespace qm::extension
