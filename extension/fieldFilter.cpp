// Filters of a search that are implied by conditions on fields.
#include "server/errorBoundary.h"

#include "extension/fieldFilter.h"
#include "elasticsearch/dateTime.h"
#include "elasticsearch/jsonString.h"
#include "extension/conditionValues.h"
#include "search/searchRequest.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <optional>

namespace qm::extension
{

using Form = SearchValue::Form;
using Reach = Filter::Reach;

namespace
{

// A cluster takes no more values in one query.
constexpr int MostTerms = 65536;
// Of several ranges; more become one around them all.
constexpr int MostRanges = 100;
// A longer text cannot be indexed.
constexpr std::size_t MostKeywordBytes = 32766;
// A double tells whole numbers from one another up to here.
constexpr double MostExact = 9007199254740992; // 2^53

Filter some(std::string json) { return {Reach::Some, std::move(json)}; }

const Filter Nothing = {Reach::Nothing, ""};
const Filter Everything = {Reach::Everything, ""};

const std::string &searchedField(const Column &column)
{
    return column.options.searchField.empty() ? column.path : column.options.searchField;
}

std::string rangeFilter(const Column &column, const std::string &bounds)
{
    return R"({"range":{)" + search::jsonString(searchedField(column)) + ":{" + bounds + "}}}";
}

std::string termsFilter(const Column &column, const std::string &values)
{
    return R"({"terms":{)" + search::jsonString(searchedField(column)) + ":[" + values + "]}}";
}

bool hasLower(Comparator comparator)
{
    return comparator != Comparator::Less && comparator != Comparator::LessOrEqual;
}

bool hasUpper(Comparator comparator)
{
    return comparator != Comparator::Greater && comparator != Comparator::GreaterOrEqual;
}

// ---- texts -----------------------------------------------------------------------------------------------

// How long a text is for Elasticsearch: in units of UTF-16.
std::int64_t utf16Length(const std::string &utf8)
{
    return std::count_if(
               utf8.begin(), utf8.end(), [](char byte) { return (byte & 0xC0) != 0x80; }) +
           std::count_if(
               utf8.begin(), utf8.end(), [](char byte) { return (byte & 0xF8) == 0xF0; });
}

Filter textFilter(const Column &column, const SearchValues &values)
{
    std::vector<std::string> texts;
    for (const SearchValue &value : values) {
        if (value.form != Form::Text)
            return Everything;
        if (zq::elasticsearch::isValidUtf8(value.text)) // no document has others
            texts.emplace_back(value.text);
    }
    if (column.role == Role::DocName) {
        texts.erase(std::remove_if(texts.begin(), texts.end(), [](const auto &id) { return !canBeId(id); }),
                    texts.end());
        return texts.empty() ? Nothing : some(search::idFilter(texts));
    }
    const bool isIndexed = std::all_of(texts.begin(), texts.end(), [&](const std::string &text) {
        return text.size() <= MostKeywordBytes && utf16Length(text) <= column.options.ignoreAbove;
    });
    if (!isIndexed)
        return Everything;
    return texts.empty() ? Nothing : some(search::termsFilter(searchedField(column), texts));
}

Filter truthFilter(const Column &column, const SearchValues &values)
{
    std::string all;
    for (const SearchValue &value : values)
        all.append(all.empty() ? "" : ",").append(value.whole != 0 ? "true" : "false");
    return some(termsFilter(column, all));
}

// ---- ranges ----------------------------------------------------------------------------------------------

// What the index keeps of a column's values that are equal to one.
struct Range {
    double low;
    double high;
};

// Those of a whole type of the index; none of the others.
struct WholeLimits {
    bool isWhole;
    double least;
    double most;
};

WholeLimits limitsOf(MappedType mapped)
{
    constexpr double Two63 = 9223372036854775808.0;
    switch (mapped) {
    case MappedType::Byte:
        return {true, INT8_MIN, INT8_MAX};
    case MappedType::Short:
        return {true, INT16_MIN, INT16_MAX};
    case MappedType::Integer:
        return {true, INT32_MIN, INT32_MAX};
    case MappedType::Long:
        return {true, -Two63, Two63};
    case MappedType::UnsignedLong:
        return {true, 0, 2 * Two63};
    default:
        return {false, 0, 0};
    }
}

// The distance between a float of so many bits and the next one, or a little more.
double unitOf(double number, int mantissaBits, int leastExponent)
{
    return std::ldexp(std::abs(number), -mantissaBits) + std::ldexp(1.0, leastExponent);
}

double halfUnit(double number) { return unitOf(number, 10, -24); }
double floatUnit(double number) { return unitOf(number, 23, -149); }
double doubleUnit(double number) { return unitOf(number, 52, -1074); }

// How far a column's value may be from what stands in the source.
double columnUnit(const Column &column, double number)
{
    const FieldType &type = *column.field;
    if (type.elementBase == FLOAT4OID)
        return floatUnit(number);
    if (type.elementBase == NUMERICOID && type.typmod >= static_cast<int32>(VARHDRSZ)) {
        const int32 scale = (((type.typmod - static_cast<int32>(VARHDRSZ)) & 0x7FF) ^ 1024) - 1024;
        return std::pow(10.0, -scale) + doubleUnit(number);
    }
    return doubleUnit(number);
}

// How far what the index keeps may be from what stands in the source; negative where it keeps nothing like
// it.
double mappedUnit(const ColumnOptions &options, double number)
{
    constexpr double MostHalf = 65504;
    constexpr double Unkept = -1;
    switch (options.mapped) {
    case MappedType::HalfFloat:
        return std::abs(number) > MostHalf ? Unkept : halfUnit(number);
    case MappedType::Float:
        return std::abs(number) > static_cast<double>(FLT_MAX) ? Unkept : floatUnit(number);
    case MappedType::Double:
        return doubleUnit(number);
    case MappedType::ScaledFloat:
        return std::abs(number) * options.scalingFactor > MostExact
                   ? Unkept
                   : 1 / options.scalingFactor + 2 * doubleUnit(number);
    default:
        // A fraction is cut off in the index, and so compared in no useful way.
        return std::trunc(number) != number || std::abs(number) > MostExact ? Unkept : 1;
    }
}

// Nothing where no request can say it.
std::optional<Range> numberRange(const Column &column, const SearchValue &value)
{
    const double number = value.form == Form::Whole ? static_cast<double>(value.whole) : value.real;
    const double kept = mappedUnit(column.options, number);
    const WholeLimits limits = limitsOf(column.options.mapped);
    if (value.form == Form::Unsayable || kept < 0 ||
        (limits.isWhole && (number < limits.least || number > limits.most)))
        return std::nullopt;
    const double unit = kept + columnUnit(column, number) + doubleUnit(number);
    return Range{number - unit, number + unit};
}

std::string numberText(double number)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.17g", number);
    return text.data();
}

// What lies beyond all that the index can keep bounds nothing.
std::string numberBounds(const Column &column, Comparator comparator, Range range)
{
    const WholeLimits limits = limitsOf(column.options.mapped);
    double least = -DBL_MAX;
    double most = DBL_MAX;
    if (limits.isWhole) {
        range.low = std::floor(range.low);
        range.high = std::ceil(range.high);
        least = limits.least;
        most = limits.most;
    } else if (column.options.mapped == MappedType::HalfFloat) {
        most = 65504;
        least = -most;
    } else if (column.options.mapped == MappedType::Float) {
        most = static_cast<double>(FLT_MAX);
        least = -most;
    }
    std::string bounds;
    if (hasLower(comparator) && range.low > least)
        bounds = R"("gte":)" + numberText(range.low);
    if (hasUpper(comparator) && range.high < most)
        bounds += (bounds.empty() ? "" : ",") + (R"("lte":)" + numberText(range.high));
    return bounds;
}

bool canBeDate(double microseconds)
{
    static const auto First = static_cast<double>(zq::elasticsearch::daysSince1970(0, 1, 1)) *
                              static_cast<double>(zq::elasticsearch::MicrosecondsPerDay);
    static const auto Last = static_cast<double>(zq::elasticsearch::daysSince1970(9999, 12, 31)) *
                             static_cast<double>(zq::elasticsearch::MicrosecondsPerDay);
    return microseconds > First && microseconds < Last;
}

// An index keeps milliseconds. A day of a column is any of its instants.
std::optional<Range> dateRange(const Column &column, const SearchValue &value)
{
    constexpr double Millisecond = 1000;
    const FieldType &type = *column.field;
    double low = Millisecond;
    double high = Millisecond;
    if (type.typmod >= 0)
        low = high = static_cast<double>(zq::elasticsearch::MicrosecondsPerSecond);
    if (type.kind == FieldKind::Date)
        high = static_cast<double>(zq::elasticsearch::MicrosecondsPerDay);
    const auto instant = static_cast<double>(value.whole);
    if (value.form != Form::Whole || !canBeDate(instant - low) || !canBeDate(instant + high))
        return std::nullopt;
    return Range{instant - low, instant + high};
}

std::string dateBounds(Comparator comparator, Range range)
{
    const auto text = [](double microseconds) {
        return search::jsonString(zq::elasticsearch::isoDate(static_cast<std::int64_t>(microseconds)));
    };
    std::string bounds;
    if (hasLower(comparator))
        bounds += R"("gte":)" + text(range.low) + ",";
    if (hasUpper(comparator))
        bounds += R"("lte":)" + text(range.high) + ",";
    return bounds + R"("format":"strict_date_optional_time")";
}

Filter rangesFilter(const Column &column, Comparator comparator, const SearchValues &values)
{
    const bool isDate = column.options.mapped == MappedType::Date;
    std::vector<Range> ranges;
    for (const SearchValue &value : values) {
        const std::optional<Range> range = isDate ? dateRange(column, value) : numberRange(column, value);
        if (!range)
            return Everything;
        ranges.push_back(*range);
    }
    if (ranges.size() > MostRanges) {
        Range all = ranges.front();
        for (const Range &range : ranges)
            all = {std::min(all.low, range.low), std::max(all.high, range.high)};
        ranges = {all};
    }
    std::vector<Filter> filters;
    for (const Range &range : ranges) {
        const std::string bounds =
            isDate ? dateBounds(comparator, range) : numberBounds(column, comparator, range);
        filters.push_back(bounds.empty() ? Everything : some(rangeFilter(column, bounds)));
    }
    return joinFilters(Junction::Any, filters);
}

// Whole numbers of a column and an index are the same.
bool isExact(const Column &column, const SearchValues &values)
{
    return limitsOf(column.options.mapped).isWhole && column.field->kind == FieldKind::Whole &&
           std::all_of(
               values.begin(), values.end(),
               [](const SearchValue &value) { return value.form == Form::Whole; });
}

Filter wholeFilter(const Column &column, Comparator comparator, const SearchValues &values)
{
    const WholeLimits limits = limitsOf(column.options.mapped);
    std::string all;
    for (const SearchValue &value : values) {
        const auto number = static_cast<double>(value.whole);
        if (number < limits.least || number > limits.most)
            return Everything;
        all += (all.empty() ? "" : ",") + std::to_string(value.whole);
    }
    if (comparator == Comparator::Equal)
        return some(termsFilter(column, all));
    return some(rangeFilter(column, (hasLower(comparator) ? R"("gte":)" : R"("lte":)") + all));
}

// ----------------------------------------------------------------------------------------------------------

// For one of the values.
Filter anyFilter(const Column &column, Comparator comparator, const SearchValues &values)
{
    if (values.count == 0)
        return Nothing;
    if (values.count > MostTerms)
        return Everything;
    if (column.role == Role::DocName || column.options.mapped == MappedType::Keyword ||
        column.options.mapped == MappedType::Ip)
        return textFilter(column, values);
    if (column.options.mapped == MappedType::Boolean)
        return truthFilter(column, values);
    return isExact(column, values) ? wholeFilter(column, comparator, values)
                                   : rangesFilter(column, comparator, values);
}

} // namespace

Filter fieldFilter(const Column &column, Comparator comparator, const SearchValues &values)
{
    if (comparator == Comparator::Overlaps)
        return anyFilter(column, Comparator::Equal, values);
    if (comparator != Comparator::ContainsAll)
        return anyFilter(column, comparator, values);
    if (values.hasNull)
        return Nothing;
    std::vector<Filter> filters;
    const int count = std::min(values.count, MostRanges);
    filters.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        filters.push_back(anyFilter(column, Comparator::Equal, {values.first + i, 1, false}));
    return joinFilters(Junction::All, filters);
}

Filter unknownFilter(const Column &column, Comparator comparator, const std::string &values)
{
    if (column.role == Role::DocName)
        return some(R"({"ids":{"values":[)" + values + "]}}");
    const bool isEqual = hasLower(comparator) && hasUpper(comparator);
    if (isEqual)
        return some(termsFilter(column, values));
    return some(rangeFilter(column, (hasLower(comparator) ? R"("gte":)" : R"("lte":)") + values));
}

// All that all of none find is everything; all that any of none finds is nothing.
Filter joinFilters(Junction junction, const std::vector<Filter> &filters)
{
    const bool isAll = junction == Junction::All;
    const Reach deciding = isAll ? Reach::Nothing : Reach::Everything;
    const Filter *only = nullptr;
    std::string list;
    int count = 0;
    for (const Filter &filter : filters) {
        if (filter.reach == deciding)
            return filter;
        if (filter.reach != Reach::Some)
            continue;
        list.append(count++ == 0 ? "" : ",").append(filter.json);
        only = &filter;
    }
    if (count == 0)
        return isAll ? Everything : Nothing;
    if (count == 1)
        return *only;
    return some(isAll ? R"({"bool":{"filter":[)" + list + "]}}"
                      : R"({"bool":{"should":[)" + list + R"(],"minimum_should_match":1}})");
}

// The server has checked how deep the stack may be when it read the conditions.
Filter filterOfTree(List *tree, const std::vector<Column> &columns,
                    const std::function<Filter(const Column &column, Comparator comparator)> &filterOf)
{
    if (IsA(tree, IntList)) {
        const auto column = std::find_if(columns.begin(), columns.end(), [&](const Column &each) {
            return each.attribute == list_nth_int(tree, 1);
        });
        return filterOf(*column, static_cast<Comparator>(linitial_int(tree)));
    }
    std::vector<Filter> filters;
    for (int i = 1; i < list_length(tree); ++i)
        filters.push_back(filterOfTree(static_cast<List *>(list_nth(tree, i)), columns, filterOf));
    return joinFilters(static_cast<Junction>(linitial_int(static_cast<List *>(linitial(tree)))), filters);
}

} // namespace qm::extension
