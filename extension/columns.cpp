// The columns of a foreign table of veltranesearch.
#include "server/errorBoundary.h"

#include "extension/columns.h"
#include "elasticsearch/jsonString.h"
#include "server/encoding.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace qm::extension
{

using server::callServer;
using server::FdwError;

namespace
{

// The field that the column doctype shows.
constexpr const char *TypeField = "type";

struct KnownColumn {
    const char *name;
    Role role;
    const char *types; // as a message says it
    Oid oids[4];
};

constexpr KnownColumn KnownColumns[] = {
    {"docname", Role::DocName, "text", {TEXTOID}},
    {"docindex", Role::DocIndex, "text", {TEXTOID}},
    {"score", Role::Score, "real or double precision", {FLOAT4OID, FLOAT8OID}},
    {"doctype", Role::DocType, "text", {TEXTOID}},
    {"doccontent", Role::DocContent, "jsonb, json, text or bytea", {JSONBOID, JSONOID, TEXTOID, BYTEAOID}},
    {"highlights", Role::Highlights, "jsonb, json, text or bytea", {JSONBOID, JSONOID, TEXTOID, BYTEAOID}},
    {"param", Role::Param, "text", {TEXTOID}},
};

const KnownColumn *find(const char *name)
{
    const auto *found =
        std::find_if(std::begin(KnownColumns), std::end(KnownColumns),
                     [&](const KnownColumn &known) { return std::strcmp(known.name, name) == 0; });
    return found == std::end(KnownColumns) ? nullptr : found;
}

Column readColumn(Form_pg_attribute attribute)
{
    const char *name = NameStr(attribute->attname);
    const ColumnOptions options = readColumnOptions(attribute->attrelid, attribute->attnum);
    const Oid baseType = callServer([&] { return getBaseType(attribute->atttypid); });
    Column column = {attribute->attnum,
                     roleOf(name, options.field),
                     attribute->atttypid,
                     baseType,
                     attribute->attnotnull,
                     name,
                     options,
                     options.field,
                     {}};
    if (column.role == Role::Field) {
        column.field = readFieldType(attribute);
        if (column.path.empty())
            column.path = callServer([&] { return server::serverToUtf8(name); });
        if (!zq::elasticsearch::isValidUtf8(column.path))
            throw FdwError(ERRCODE_CHARACTER_NOT_IN_REPERTOIRE, "the name of a column is not valid UTF-8")
                .hinted("The option \"field\" names the field that the column shows.");
        return column;
    }
    if (column.role == Role::DocType)
        column.path = TypeField;
    const KnownColumn *known = find(name);
    if (std::find(std::begin(known->oids), std::end(known->oids), baseType) == std::end(known->oids))
        throw FdwError(ERRCODE_FDW_INVALID_DATA_TYPE,
                       std::string("column \"") + name + "\" should be of type " + known->types)
            .hinted("ALTER FOREIGN TABLE changes the type of a column. A column for a field of that name has "
                    "another name and the option \"field\".");
    return column;
}

bool isMember(int attribute, const Bitmapset *attributes)
{
    return bms_is_member(attribute - FirstLowInvalidHeapAttributeNumber, attributes);
}

} // namespace

Role roleOf(const char *name, const std::string &field)
{
    const KnownColumn *known = find(name);
    return known && field.empty() ? known->role : Role::Field;
}

std::vector<Column> readColumns(tupleDesc *descriptor, const Bitmapset *attributes)
{
    for (int system = FirstLowInvalidHeapAttributeNumber + 1; system < 0; ++system)
        if (system != TableOidAttributeNumber && isMember(system, attributes))
            throw FdwError(ERRCODE_FEATURE_NOT_SUPPORTED, "documents have no system columns but tableoid");
    const bool isWholeRow = isMember(0, attributes);
    std::vector<Column> columns;
    for (int index = 0; index < descriptor->natts; ++index) {
        const Form_pg_attribute attribute = TupleDescAttr(descriptor, index);
        if (!attribute->attisdropped && (isWholeRow || isMember(attribute->attnum, attributes)))
            columns.push_back(readColumn(attribute));
    }
    return columns;
}

} // namespace qm::extension
