// Types of columns that show a field of the source.
#include "server/errorBoundary.h"

#include "extension/fieldType.h"

namespace qm::extension
{

using server::callServer;
using server::FdwError;

namespace
{

// [server side] The kind for values of a type below its domains; false when no field can be shown as that.
bool findFieldKind(Oid type, FieldKind &kind)
{
    switch (type) {
    case INT2OID:
    case INT4OID:
    case INT8OID:
        kind = FieldKind::Whole;
        return true;
    case FLOAT4OID:
    case FLOAT8OID:
    case NUMERICOID:
        kind = FieldKind::Number;
        return true;
    case BOOLOID:
        kind = FieldKind::Boolean;
        return true;
    case DATEOID:
        kind = FieldKind::Date;
        return true;
    case TIMESTAMPOID:
    case TIMESTAMPTZOID:
        kind = FieldKind::Timestamp;
        return true;
    case JSONOID:
    case JSONBOID:
        kind = FieldKind::Json;
        return true;
    default:
        kind = FieldKind::Text;
        return type == UUIDOID || type == INETOID || type_is_enum(type) ||
               TypeCategory(type) == TYPCATEGORY_STRING;
    }
}

// [server side] False when no field can be shown as that.
bool readType(Oid type, int32 typmod, FieldType &found)
{
    const Oid base = getBaseTypeAndTypmod(type, &typmod);
    const Oid element = get_element_type(base);
    found.isArray = OidIsValid(element);
    found.element = found.isArray ? element : base;
    found.elementBase = getBaseTypeAndTypmod(found.element, &typmod);
    found.typmod = typmod;
    get_typlenbyvalalign(found.element, &found.length, &found.isByValue, &found.alignment);
    Oid function;
    getTypeInputInfo(found.elementBase, &function, &found.inputParameter);
    fmgr_info(function, &found.input);
    return findFieldKind(found.elementBase, found.kind);
}

} // namespace

FieldType readFieldType(Form_pg_attribute attribute)
{
    FieldType type = {};
    if (!callServer([&] { return readType(attribute->atttypid, attribute->atttypmod, type); }))
        throw FdwError(ERRCODE_FDW_INVALID_DATA_TYPE, std::string("column \"") + NameStr(attribute->attname) +
                                                          "\" is of a type that no field of a document has")
            .hinted("Types of fields are text, varchar, numbers, boolean, date, timestamp, timestamptz, "
                    "uuid, inet, enums, json, jsonb, domains over these, and arrays of them.");
    return type;
}

} // namespace qm::extension
