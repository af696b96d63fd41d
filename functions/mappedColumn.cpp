// What a column of a foreign table has to do with the field that it shows.
#include "server/errorBoundary.h"

#include "functions/mappedColumn.h"
#include "search/failure.h"

namespace qm::functions
{

using extension::Column;
using extension::ColumnOptions;
using extension::DateFormat;
using extension::FieldKind;
using extension::Kind;
using extension::MappedField;
using extension::MappedType;
using extension::Searchable;

namespace
{

constexpr const char *TypeHint =
    "ALTER FOREIGN TABLE changes the type and the options of a column; IMPORT FOREIGN "
    "SCHEMA declares what the mapping says.";
constexpr const char *SearchHint =
    "Set the options of the column as IMPORT FOREIGN SCHEMA does, or drop its option \"search\": then "
    "PostgreSQL alone checks the conditions.";

bool isNumber(Kind kind) { return kind >= Kind::SmallInt && kind <= Kind::Double; }

bool fitsDate(Kind kind, DateFormat format)
{
    switch (kind) {
    case Kind::Instant: // by default numbers in it are milliseconds
        return format != DateFormat::EpochSecond;
    case Kind::Day:
        return true;
    case Kind::Milliseconds:
        return format == DateFormat::EpochMillis;
    case Kind::Seconds:
        return format == DateFormat::EpochSecond;
    default:
        return false;
    }
}

bool isObject(const MappedField &field)
{
    return field.type.empty() || field.type == "object" || field.type == "nested" ||
           field.type == "flattened";
}

// Whether the values of the field are ones of the column as a rule.
bool fits(const Column &column, const MappedField &field)
{
    const Kind kind = field.kind;
    const bool hasFractions = kind == Kind::Real || kind == Kind::Double;
    switch (column.field ? column.field->kind : FieldKind::Text) {
    case FieldKind::Text:
        return !hasFractions && !isObject(field);
    case FieldKind::Whole:
        return isNumber(kind) && !hasFractions;
    case FieldKind::Number:
        return isNumber(kind);
    case FieldKind::Boolean:
        return kind == Kind::Boolean;
    case FieldKind::Date:
    case FieldKind::Timestamp:
        return fitsDate(kind, column.options.dateFormat);
    case FieldKind::Json:
        break;
    }
    return true;
}

std::string searchedField(const std::string &path, const std::string &field)
{
    return field.empty() ? path : field;
}

// How the index knows the field that the search is to look in; null where it does not know its values.
const Searchable *findSearched(const MappedField &field, const std::string &wanted)
{
    if (field.searchable && searchedField(field.path, field.searchable->field) == wanted)
        return &*field.searchable;
    for (const Searchable &part : field.parts)
        if (part.field == wanted)
            return &part;
    return nullptr;
}

bool areAlike(const ColumnOptions &column, const ColumnOptions &mapped)
{
    return column.mapped == mapped.mapped && column.ignoreAbove <= mapped.ignoreAbove &&
           column.scalingFactor == mapped.scalingFactor;
}

std::string describe(const Searchable &searchable)
{
    return search::quoted(searchable.type) +
           (searchable.ignoreAbove.empty() ? ""
                                           : ", ignore_above " + search::quoted(searchable.ignoreAbove)) +
           (searchable.scalingFactor.empty()
                ? ""
                : ", scaling_factor " + search::quoted(searchable.scalingFactor));
}

} // namespace

std::optional<Finding> findDisagreement(const Column &column, const MappedField &field)
{
    const std::string mappedAs =
        "the field " + search::quoted(field.path) + " is mapped as " + search::quoted(field.type);
    if (!fits(column, field))
        return Finding{Verdict::Wrong, mappedAs + ", and its values do not fit the column", TypeHint};
    if (column.options.mapped == MappedType::None)
        return std::nullopt;
    const std::string wanted = searchedField(field.path, column.options.searchField);
    const Searchable *searched = findSearched(field, wanted);
    if (!searched && wanted != field.path && wanted.compare(0, field.path.size() + 1, field.path + ".") != 0)
        return Finding{Verdict::Unknown,
                       mappedAs + ", and whether " + search::quoted(wanted) +
                           " has the same values is not told",
                       SearchHint};
    if (!searched)
        return Finding{Verdict::Wrong,
                       mappedAs + ", and a search by " + search::quoted(wanted) + " does not find all rows",
                       SearchHint};
    if (!areAlike(column.options, extension::columnOptionsFor(*searched)))
        return Finding{Verdict::Wrong,
                       "the field " + search::quoted(wanted) + " is mapped as " + describe(*searched) +
                           ", and with other options of the column the search does not find all rows",
                       SearchHint};
    return std::nullopt;
}

} // namespace qm::functions
