// The values of a field, as they stand in a source, on their way to the value of a column.
#include "server/errorBoundary.h"

#include "extension/fieldValues.h"
#include "elasticsearch/dateTime.h"
#include "elasticsearch/jsonCursor.h"
#include "elasticsearch/jsonString.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace qm::extension
{

using namespace zq::elasticsearch;

namespace
{

constexpr const char *NotWhole = "a whole number is needed";
constexpr const char *NotNumber = "a number is needed";
constexpr const char *NotBoolean = "true or false is needed";
constexpr const char *NotDate = "a date of ISO 8601 is needed";
constexpr const char *NumberAsDate = "numbers are dates in columns with the option \"format\"";
constexpr const char *NotEpoch = "a number of the column's format or a date of ISO 8601 is needed";
constexpr const char *NotScalar = "a single value is needed, and this is an object";
constexpr const char *OutOfRange = "it is out of the range of the column's type";
constexpr const char *NoSpelling =
    "a number with a fraction or an exponent is no text: it may be spelt in other ways";
constexpr const char *TooLong = "it is longer than the column's type takes";
constexpr const char *SeveralValues = "there are several values, and the column is no array";
constexpr const char *TooManyValues = "there are more than 10 million values";
constexpr const char *NotText = "it is not valid Unicode";
constexpr const char *Malformed = "it is malformed";

// What a server's array can hold is not much more, and a response must not take all memory.
constexpr std::size_t MostValues = 10'000'000;

bool isDigit(char byte) { return byte >= '0' && byte <= '9'; }

std::size_t digitsFrom(std::string_view text, std::size_t at)
{
    const std::size_t begin = at;
    while (at < text.size() && isDigit(text[at]))
        ++at;
    return at - begin;
}

// A number as JSON writes it, but for zeros in front.
bool isNumber(std::string_view text)
{
    std::size_t at = !text.empty() && text[0] == '-' ? 1 : 0;
    const std::size_t whole = digitsFrom(text, at);
    at += whole;
    if (whole == 0)
        return false;
    if (at < text.size() && text[at] == '.') {
        const std::size_t fraction = digitsFrom(text, ++at);
        at += fraction;
        if (fraction == 0)
            return false;
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        if (at < text.size() && (text[at] == '+' || text[at] == '-'))
            ++at;
        const std::size_t exponent = digitsFrom(text, at);
        at += exponent;
        if (exponent == 0)
            return false;
    }
    return at == text.size();
}

// Also 5.0 and 1e3 are whole, as far as a double is exact: Elasticsearch reads them as doubles, too. Returns
// why it is no such number, or null.
const char *readWhole(std::string_view text, std::int64_t &number)
{
    constexpr double MostExact = 9007199254740991; // 2^53 - 1
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (problem == std::errc() && end == text.data() + text.size())
        return nullptr;
    if (!isNumber(text))
        return NotWhole;
    const double value = std::strtod(std::string(text).c_str(), nullptr);
    if (std::abs(value) > MostExact)
        return OutOfRange;
    number = static_cast<std::int64_t>(value);
    return static_cast<double>(number) == value ? nullptr : NotWhole;
}

bool fits(std::int64_t number, Oid type)
{
    if (type == INT2OID)
        return number >= INT16_MIN && number <= INT16_MAX;
    return type != INT4OID || (number >= INT32_MIN && number <= INT32_MAX);
}

// The days of PostgreSQL's calendar and its microseconds begin with the year 2000.
constexpr std::int64_t DaysTo2000 = POSTGRES_EPOCH_JDATE - UNIX_EPOCH_JDATE;

// The server's calendar has none before it, in microseconds since 1970; its end is beyond 64 bits of them.
constexpr std::int64_t FirstInstant = MIN_TIMESTAMP + DaysTo2000 * MicrosecondsPerDay;

// A column with a format reads numbers, also those in strings, by it.
bool readDate(std::string_view text, bool isString, DateFormat format, std::int64_t &microseconds)
{
    constexpr std::int64_t MicrosecondsPerMillisecond = 1000;
    const std::int64_t unit =
        format == DateFormat::EpochMillis ? MicrosecondsPerMillisecond : MicrosecondsPerSecond;
    return (format != DateFormat::Iso && readEpoch(text, unit, microseconds)) ||
           (isString && readIsoDate(text, microseconds));
}

// A cluster that sends a part of a source writes 1.50 as 1.5, while its index has the keyword 1.50.
bool hasOneSpelling(std::string_view number)
{
    const std::string_view digits = number.substr(number.front() == '-' ? 1 : 0);
    return digitsFrom(digits, 0) == digits.size() && (digits.front() != '0' || number == "0");
}

// The server would cut off blanks at the end, and find texts equal that are different ones in the source.
bool isTooLong(const FieldType &type, std::string_view text)
{
    const auto header = static_cast<int32>(VARHDRSZ);
    return type.elementBase == VARCHAROID && type.typmod >= header &&
           std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }) >
               type.typmod - header;
}

const char *readAs(const Column &column, bool isString, ScalarValue &value)
{
    switch (column.field->kind) {
    case FieldKind::Whole:
        if (const char *problem = readWhole(value.text, value.number))
            return problem;
        return fits(value.number, column.field->elementBase) ? nullptr : OutOfRange;
    case FieldKind::Number:
        return isNumber(value.text) ? nullptr : NotNumber;
    case FieldKind::Boolean:
        // An empty text is false for Elasticsearch, too.
        value.number = value.text == "true" ? 1 : 0;
        return value.number == 1 || value.text == "false" || (isString && value.text.empty()) ? nullptr
                                                                                              : NotBoolean;
    case FieldKind::Date:
    case FieldKind::Timestamp:
        if (readDate(value.text, isString, column.options.dateFormat, value.number))
            return value.number >= FirstInstant ? nullptr : OutOfRange;
        if (column.options.dateFormat != DateFormat::Iso)
            return NotEpoch;
        return isString ? NotDate : NumberAsDate;
    case FieldKind::Text:
        if (!isString && isNumber(value.text) && !hasOneSpelling(value.text))
            return NoSpelling;
        return isTooLong(*column.field, value.text) ? TooLong : nullptr;
    case FieldKind::Json:
        break;
    }
    return nullptr;
}

} // namespace

std::string &FieldReader::newText()
{
    if (used == texts.size())
        texts.emplace_back();
    return texts[used++];
}

void FieldReader::read(const Column &column, const std::vector<std::string_view> &found, FieldValues &target)
{
    target.values.clear();
    target.problem = nullptr;
    target.isMissing = found.empty() || (found.size() == 1 && found[0] == "null");
    if (target.isMissing)
        return;
    if (column.field->kind == FieldKind::Json && !column.field->isArray) {
        // Whatever stands there; several places make an array.
        ScalarValue value{false, found[0], 0};
        if (found.size() > 1) {
            std::string &all = newText();
            all.clear();
            for (const std::string_view each : found)
                all.append(all.empty() ? "[" : ",").append(each);
            value.text = all += "]";
        }
        target.values.push_back(value);
        return;
    }
    for (const std::string_view json : found)
        add(column, json, target);
    if (column.field->isArray || target.problem)
        return;
    // For a search null is no value at all, wherever it stands.
    const auto end = std::remove_if(target.values.begin(), target.values.end(),
                                    [](const ScalarValue &value) { return value.isNull; });
    target.values.erase(end, target.values.end());
    target.isMissing = target.values.empty();
    if (target.values.size() > 1)
        target.problem = SeveralValues;
}

// Adds a value, or all of an array, however deep they stand.
void FieldReader::add(const Column &column, std::string_view json, FieldValues &target)
{
    if (json.empty() || json.front() != '[') {
        addScalar(column, json, target);
        return;
    }
    try {
        JsonStructure structure;
        structure.extend(json.data(), json.size());
        JsonCursor cursor(json, structure, 0);
        std::size_t depth = 0;
        bool isFirst = true;
        do {
            if (depth == 0 || cursor.nextElement(isFirst)) {
                isFirst = cursor.peek() == '[';
                if (isFirst) {
                    cursor.take('[');
                    ++depth;
                } else {
                    addScalar(column, cursor.value(), target);
                }
            } else {
                --depth;
                isFirst = false;
            }
        } while (depth > 0);
    } catch (const JsonError &) {
        target.problem = Malformed;
    } catch (const JsonNeedsMore &) {
        target.problem = Malformed;
    }
}

void FieldReader::addScalar(const Column &column, std::string_view json, FieldValues &target)
{
    ScalarValue value{json == "null", json, 0};
    const bool isString = json.size() > 1 && json.front() == '"';
    const char *problem = nullptr;
    if (!value.isNull && column.field->kind != FieldKind::Json) {
        if (isString) {
            std::string &text = newText();
            problem = decodeJsonText(json.substr(1, json.size() - 2), text) ? nullptr : NotText;
            value.text = text;
        } else if (json.empty() || json.front() == '{') {
            problem = NotScalar;
        } else if (json != "true" && json != "false" && !isNumber(json)) {
            problem = Malformed;
        }
        if (!problem)
            problem = readAs(column, isString, value);
    }
    if (target.values.size() == MostValues)
        problem = TooManyValues;
    else
        target.values.push_back(value);
    if (problem)
        target.problem = problem;
}

namespace
{

// What follows is on the server's side of the error boundary.

Datum wholeOf(const FieldType &type, std::int64_t number)
{
    switch (type.elementBase) {
    case INT2OID:
        return Int16GetDatum(static_cast<int16>(number));
    case INT4OID:
        return Int32GetDatum(static_cast<int32>(number));
    default:
        return Int64GetDatum(number);
    }
}

Datum timestampOf(const FieldType &type, std::int64_t microseconds)
{
    const Datum timestamp = TimestampGetDatum(microseconds);
    if (type.typmod < 0)
        return timestamp;
    return DirectFunctionCall2(type.elementBase == TIMESTAMPOID ? timestamp_scale : timestamptz_scale,
                               timestamp, Int32GetDatum(type.typmod));
}

Datum datumOf(FieldType &type, const ScalarValue &value)
{
    switch (type.kind) {
    case FieldKind::Whole:
        return wholeOf(type, value.number);
    case FieldKind::Boolean:
        return BoolGetDatum(value.number != 0);
    case FieldKind::Timestamp:
        return timestampOf(type, value.number - DaysTo2000 * MicrosecondsPerDay);
    case FieldKind::Date: {
        const std::int64_t since2000 = value.number - DaysTo2000 * MicrosecondsPerDay;
        const std::int64_t day =
            since2000 / MicrosecondsPerDay - (since2000 % MicrosecondsPerDay < 0 ? 1 : 0);
        return DateADTGetDatum(static_cast<DateADT>(day));
    }
    default:
        if (type.elementBase == TEXTOID)
            return search::textOf(value.text);
        return InputFunctionCall(&type.input, search::cStringOf(value.text), type.inputParameter,
                                 type.typmod);
    }
}

} // namespace

search::Value makeFieldValue(FieldType &type, const FieldValues &read)
{
    if (read.isMissing)
        return search::Null;
    const std::size_t count = read.values.size();
    if (!type.isArray)
        return {datumOf(type, read.values[0]), false};
    if (count == 0)
        return {PointerGetDatum(construct_empty_array(type.element)), false};
    auto *elements = static_cast<Datum *>(palloc0(count * sizeof(Datum)));
    auto *nulls = static_cast<bool *>(palloc0(count * sizeof(bool)));
    for (std::size_t i = 0; i < count; ++i) {
        CHECK_FOR_INTERRUPTS();
        nulls[i] = read.values[i].isNull;
        if (!nulls[i])
            elements[i] = datumOf(type, read.values[i]);
        if (type.element != type.elementBase)
            domain_check(elements[i], nulls[i], type.element, nullptr, nullptr);
    }
    int dimensions[] = {static_cast<int>(count)};
    int lowerBounds[] = {1};
    return {PointerGetDatum(construct_md_array(elements, nulls, 1, dimensions, lowerBounds, type.element,
                                               type.length, type.isByValue, type.alignment)),
            false};
}

} // namespace qm::extension
