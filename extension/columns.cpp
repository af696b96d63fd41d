// The columns of a foreign table of veltranesearch.
#include "server/errorBoundary.h"

#include "extension/columns.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace qm::extension
{

using server::callServer;
using server::FdwError;

namespace
{

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
    const KnownColumn *known = find(name);
    if (!known)
        throw FdwError(ERRCODE_FDW_INVALID_COLUMN_NAME,
                       std::string("column \"") + name + "\" is none of a search")
            .hinted("The columns are docname, docindex, score, doctype, doccontent, highlights and param.");
    const Oid baseType = callServer([&] { return getBaseType(attribute->atttypid); });
    if (std::find(std::begin(known->oids), std::end(known->oids), baseType) == std::end(known->oids))
        throw FdwError(ERRCODE_FDW_INVALID_DATA_TYPE,
                       std::string("column \"") + name + "\" should be of type " + known->types)
            .hinted("ALTER FOREIGN TABLE changes the type of a column.");
    return {attribute->attnum, known->role, attribute->atttypid, baseType, attribute->attnotnull, name};
}

bool isMember(int attribute, const Bitmapset *attributes)
{
    return bms_is_member(attribute - FirstLowInvalidHeapAttributeNumber, attributes);
}

} // namespace

bool findRole(const char *name, Role &role)
{
    const KnownColumn *known = find(name);
    if (known)
        role = known->role;
    return known != nullptr;
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
