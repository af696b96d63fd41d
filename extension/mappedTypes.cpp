// The types of fields that a mapping may have, and what becomes of them.
#include "extension/mappedTypes.h"

#include <algorithm>
#include <initializer_list>

namespace qm::extension
{
namespace
{

struct ScalarType {
    std::string_view name;
    Kind kind;
    bool isSearchable; // by single values
};

// Whatever is not among them is shown as JSON.
constexpr ScalarType ScalarTypes[] = {
    {"keyword", Kind::Text, true},          {"text", Kind::Text, false},
    {"match_only_text", Kind::Text, false}, {"search_as_you_type", Kind::Text, false},
    {"annotated_text", Kind::Text, false},  {"wildcard", Kind::Text, false},
    {"counted_keyword", Kind::Text, false}, {"icu_collation_keyword", Kind::Text, false},
    {"version", Kind::Text, false},         {"binary", Kind::Text, false}, // in Base64
    {"boolean", Kind::Boolean, true},       {"ip", Kind::Inet, true},
    {"byte", Kind::SmallInt, true},         {"short", Kind::SmallInt, true},
    {"integer", Kind::Integer, true},       {"long", Kind::BigInt, true},
    {"unsigned_long", Kind::Numeric, true}, {"scaled_float", Kind::Numeric, true},
    {"half_float", Kind::Real, true},       {"float", Kind::Real, true},
    {"double", Kind::Double, true},
};

struct DateFormat {
    std::string_view name;
    Kind kind;
    bool isSearchable; // the cluster reads the same values from it as this server
};

constexpr std::string_view DefaultFormat = "strict_date_optional_time";
constexpr std::string_view OrMilliseconds = "||epoch_millis";

constexpr DateFormat DateFormats[] = {
    {DefaultFormat, Kind::Instant, true},
    {"strict_date_optional_time_nanos", Kind::Instant, false},
    {"date_optional_time", Kind::Instant, false},
    {"strict_date_time", Kind::Instant, false},
    {"strict_date_time_no_millis", Kind::Instant, false},
    {"strict_date", Kind::Day, true},
    {"yyyy-MM-dd", Kind::Day, true},
    {"date", Kind::Day, false},
    {"epoch_millis", Kind::Milliseconds, true},
    {"epoch_second", Kind::Seconds, true},
};

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> all)
{
    return std::find(all.begin(), all.end(), text) != all.end();
}

const ScalarType *scalarType(std::string_view name)
{
    const auto *found = std::find_if(std::begin(ScalarTypes), std::end(ScalarTypes),
                                     [&](const ScalarType &type) { return type.name == name; });
    return found == std::end(ScalarTypes) ? nullptr : found;
}

bool isDate(const Definition &definition) { return isOneOf(definition.type, {"date", "date_nanos"}); }

DateFormat dateFormat(const Definition &definition)
{
    std::string_view name = definition.format.empty() ? DefaultFormat : definition.format;
    const std::size_t before = name.size() - std::min(name.size(), OrMilliseconds.size());
    const bool takesMilliseconds = name.substr(before) == OrMilliseconds;
    if (takesMilliseconds)
        name.remove_suffix(OrMilliseconds.size());
    for (const DateFormat &format : DateFormats)
        if (format.name == name && (!takesMilliseconds || format.kind == Kind::Instant))
            return format;
    return {"", Kind::OtherDate, false};
}

bool isSearchableType(const Definition &definition)
{
    if (isDate(definition))
        return definition.type == "date" && dateFormat(definition).isSearchable;
    const ScalarType *type = scalarType(definition.type);
    return type && type->isSearchable &&
           (definition.type != "scaled_float" || !definition.scalingFactor.empty());
}

} // namespace

bool Definition::isObject() const
{
    return isOneOf(type, {"", "object", "passthrough"}) && enabled != "false";
}

bool Definition::isFullText() const
{
    return isOneOf(type, {"text", "match_only_text", "search_as_you_type", "annotated_text"});
}

bool Definition::hasNoValue() const
{
    return isOneOf(
        type, {"alias", "constant_keyword", "join", "percolator", "completion", "token_count", "murmur3"});
}

Kind kindOf(const Definition &definition)
{
    if (isDate(definition))
        return dateFormat(definition).kind;
    const ScalarType *type = scalarType(definition.type);
    return type ? type->kind : Kind::Json;
}

std::optional<Searchable> searchableOf(const Definition &definition, const MappingDefaults &defaults)
{
    const bool isKeyword = definition.type == "keyword";
    const bool ignoresMalformed =
        definition.ignoreMalformed.empty() ? defaults.ignoresMalformed : definition.ignoreMalformed == "true";
    if (!isSearchableType(definition) || definition.isAltered || definition.index == "false" ||
        (ignoresMalformed && !isKeyword))
        return std::nullopt;
    Searchable searchable{definition.type, "", "", "", definition.format};
    if (isKeyword)
        searchable.ignoreAbove =
            definition.ignoreAbove.empty() ? defaults.ignoreAbove : definition.ignoreAbove;
    if (definition.type == "scaled_float")
        searchable.scalingFactor = definition.scalingFactor;
    return searchable;
}

} // namespace qm::extension
