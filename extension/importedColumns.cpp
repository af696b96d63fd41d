// The columns of an imported table, out of the mappings of its indices.
#include "extension/importedColumns.h"

#include <algorithm>

namespace qm::extension
{
namespace
{

struct ColumnType {
    const char *sql;
    const char *array;  // null where the type holds arrays as it is
    const char *format; // column option
};

ColumnType typeOf(Kind kind)
{
    switch (kind) {
    case Kind::Boolean:
        return {"boolean", "boolean[]", nullptr};
    case Kind::Inet:
        return {"pg_catalog.inet", "pg_catalog.inet[]", nullptr};
    case Kind::Json:
        return {"pg_catalog.jsonb", nullptr, nullptr};
    case Kind::SmallInt:
        return {"smallint", "smallint[]", nullptr};
    case Kind::Integer:
        return {"integer", "integer[]", nullptr};
    case Kind::BigInt:
        return {"bigint", "bigint[]", nullptr};
    case Kind::Numeric:
        return {"numeric", "numeric[]", nullptr};
    case Kind::Real:
        return {"real", "real[]", nullptr};
    case Kind::Double:
        return {"double precision", "double precision[]", nullptr};
    case Kind::Instant:
        return {"pg_catalog.timestamptz", "pg_catalog.timestamptz[]", nullptr};
    case Kind::Day:
        return {"pg_catalog.date", "pg_catalog.date[]", nullptr};
    case Kind::Milliseconds:
        return {"pg_catalog.timestamptz", "pg_catalog.timestamptz[]", "epoch_millis"};
    case Kind::Seconds:
        return {"pg_catalog.timestamptz", "pg_catalog.timestamptz[]", "epoch_second"};
    default:
        return {"pg_catalog.text", "pg_catalog.text[]", nullptr};
    }
}

bool isWhole(Kind kind) { return kind >= Kind::SmallInt && kind <= Kind::BigInt; }
bool isFloating(Kind kind) { return kind == Kind::Real || kind == Kind::Double; }
bool isNumber(Kind kind) { return kind >= Kind::SmallInt && kind <= Kind::Double; }
bool isDate(Kind kind) { return kind >= Kind::Instant; }

// What holds the values of both.
Kind wider(Kind one, Kind other)
{
    if (one == other)
        return one;
    if (isNumber(one) && isNumber(other)) {
        if (isWhole(one) && isWhole(other))
            return std::max(one, other);
        return isFloating(one) && isFloating(other) ? Kind::Double : Kind::Numeric;
    }
    // A day is read in whatever format the column has; but a year alone, an instant, looks like a number.
    if (isDate(one) && isDate(other))
        return one == Kind::Day ? other : other == Kind::Day ? one : Kind::OtherDate;
    const auto isText = [](Kind kind) { return kind == Kind::Text || kind == Kind::OtherDate; };
    return isText(one) && isText(other) ? Kind::Text : Kind::Json;
}

} // namespace

void ImportedColumns::add(const Mapping &mapping)
{
    ++indices;
    for (const MappedField &field : mapping.fields)
        merge(field);
    for (const ValuelessField &field : mapping.valueless)
        withoutValue.emplace(field.path, field.type);
    parents.insert(mapping.parents.begin(), mapping.parents.end());
    checkFieldCount(merged.size() + withoutValue.size() + parents.size());
}

void ImportedColumns::merge(const MappedField &field)
{
    const auto [place, isNew] = places.emplace(field.path, merged.size());
    if (isNew) {
        merged.push_back({field.path, field.kind, field.searchable, 1, indices});
        return;
    }
    Merged &known = merged[place->second];
    known.kind = wider(known.kind, field.kind);
    if (!(known.searchable == field.searchable))
        known.searchable.reset();
    // Two types of one index, in version 6, may have the same field.
    if (known.lastIndex != indices)
        ++known.indices;
    known.lastIndex = indices;
}

std::vector<ImportedColumn> ImportedColumns::columns(const std::set<std::string> &arrays) const
{
    std::vector<ImportedColumn> columns;
    for (const Merged &field : merged) {
        // What is an object in another index cannot be shown as anything else.
        const ColumnType type = typeOf(parents.count(field.path) != 0 ? Kind::Json : field.kind);
        const bool isArray = type.array && arrays.count(field.path) != 0;
        // Documents of an index that does not map the field are not found by it.
        columns.push_back({field.path, isArray ? type.array : type.sql, type.format,
                           field.indices == indices ? field.searchable : std::nullopt});
    }
    return columns;
}

std::vector<ValuelessField> ImportedColumns::valueless() const
{
    std::vector<ValuelessField> fields;
    for (const auto &[path, type] : withoutValue)
        if (places.count(path) == 0)
            fields.push_back({path, type});
    return fields;
}

} // namespace qm::extension
