// The parameters of a search.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonCursor.h"
#include "elasticsearch/jsonString.h"
#include "extension/parameters.h"
#include "search/failure.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace qm::extension
{

using server::FdwError;
using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::JsonStructure;

namespace
{

[[noreturn]] void refuse(const std::string &message, const std::string &detail, const std::string &hint)
{
    throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE, message).detailed(detail).hinted(hint);
}

// Where a byte of a text is, in characters counted from 1.
std::size_t characterAt(std::string_view utf8, std::size_t byte)
{
    const std::string_view before = utf8.substr(0, byte);
    return 1 + static_cast<std::size_t>(std::count_if(before.begin(), before.end(),
                                                      [](char each) { return (each & 0xC0) != 0x80; }));
}

// A JSON value of which `first` are the bytes that it may begin with, and nothing behind it: it cannot close
// the place that it stands in.
std::string json(const char *name, const char *kind, std::string_view first, const std::string &value)
{
    std::string problem;
    std::size_t place = value.size();
    try {
        const std::string ended = value + " "; // that a number ends there is only seen by what follows
        JsonStructure structure;
        structure.extend(ended.data(), ended.size());
        JsonCursor cursor(ended, structure, 0);
        if (first.find(cursor.peek()) == std::string_view::npos) {
            problem = "it begins as something else";
            place = cursor.position();
        } else {
            cursor.value();
            if (cursor.isAtEnd())
                return value;
            problem = "more stands behind it";
            place = cursor.position();
        }
    } catch (const zq::elasticsearch::JsonError &error) {
        problem = error.what();
        place = error.position;
    } catch (const zq::elasticsearch::JsonNeedsMore &) {
        problem = "it is cut off";
    }
    refuse(std::string("parameter \"") + name + "\" takes " + kind,
           problem + ", at character " + std::to_string(characterAt(value, place)) +
               " of: " + search::quoted(value),
           "");
}

void setOnce(std::string &target, const char *name, std::string value)
{
    if (!target.empty())
        refuse(std::string("parameter \"") + name + "\" is given twice", "", "A search has one of it.");
    target = std::move(value);
}

struct KnownParameter {
    const char *name;
    void (*read)(Parameters &parameters, const char *name, const std::string &value);
};

constexpr KnownParameter AllParameters[] = {
    {"query",
     [](Parameters &parameters, const char *name, const std::string &value) {
         setOnce(parameters.query, name, json(name, "a JSON object", "{", value));
     }},
    {"highlight",
     [](Parameters &parameters, const char *name, const std::string &value) {
         setOnce(parameters.highlight, name, json(name, "a JSON object", "{", value));
     }},
    {"sort",
     [](Parameters &parameters, const char *name, const std::string &value) {
         setOnce(parameters.sort, name, json(name, "a JSON array", "[", value));
     }},
    {"minscore",
     [](Parameters &parameters, const char *name, const std::string &value) {
         setOnce(parameters.minScore, name, json(name, "a number", "-0123456789", value));
     }},
    {"sourceincludefilter", [](Parameters &parameters, const char *,
                               const std::string &value) { parameters.sourceIncludes.push_back(value); }},
    {"sourceexcludefilter", [](Parameters &parameters, const char *,
                               const std::string &value) { parameters.sourceExcludes.push_back(value); }},
    {"compressionlevel",
     [](Parameters &parameters, const char *name, const std::string &value) {
         char *end = nullptr;
         const long level = std::strtol(value.c_str(), &end, 10);
         if (value.empty() || *end != '\0' || level < -2 || level > 9)
             refuse(std::string("parameter \"") + name + "\" takes a whole number from -2 to 9", "", "");
         parameters.compressionLevel = static_cast<int>(level);
     }},
};

void readParameter(Parameters &parameters, const std::string &text)
{
    constexpr const char *Hint = "The parameters are query, highlight, sort, minscore, sourceincludefilter, "
                                 "sourceexcludefilter and compressionlevel, each written as name=value.";
    if (!zq::elasticsearch::isValidUtf8(text))
        refuse("a value of \"param\" is not valid UTF-8", search::quoted(text), "");
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        refuse("a value of \"param\" is no parameter", search::quoted(text), Hint);
    const std::string_view name = std::string_view(text).substr(0, equals);
    const KnownParameter *known = std::find_if(std::begin(AllParameters), std::end(AllParameters),
                                               [&](const KnownParameter &each) { return each.name == name; });
    if (known == std::end(AllParameters))
        refuse("there is no parameter \"" + search::quoted(name) + "\"", "", Hint);
    known->read(parameters, known->name, text.substr(equals + 1));
}

} // namespace

Parameters readParameters(const std::vector<std::string> &values)
{
    Parameters parameters;
    for (const std::string &value : values)
        readParameter(parameters, value);
    return parameters;
}

} // namespace qm::extension
