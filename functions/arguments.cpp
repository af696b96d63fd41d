// The arguments of the SQL functions.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonString.h"
#include "functions/arguments.h"
#include "search/failure.h"
#include "server/encoding.h"

namespace qm::functions
{

using server::callServer;
using server::FdwError;

namespace
{

// In a database that knows no encoding anything may stand.
void checkUtf8(const std::string &text, const char *name)
{
    if (!zq::elasticsearch::isValidUtf8(text))
        throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                       std::string("argument \"") + name + "\" is not valid UTF-8")
            .detailed(search::quoted(text));
}

struct Texts {
    const char **first;
    int count;
    bool hasNull;
};

// [server side]
Texts textsOf(ArrayType *array)
{
    Datum *elements = nullptr;
    bool *nulls = nullptr;
    Texts texts = {nullptr, 0, false};
    deconstruct_array(array, TEXTOID, -1, false, 'i', &elements, &nulls, &texts.count);
    texts.first = static_cast<const char **>(
        MemoryContextAllocHuge(CurrentMemoryContext, (static_cast<Size>(texts.count) + 1) * sizeof(char *)));
    for (int i = 0; i < texts.count; ++i) {
        texts.hasNull = texts.hasNull || nulls[i];
        texts.first[i] = nulls[i] ? "" : server::serverToUtf8(TextDatumGetCString(elements[i]));
    }
    return texts;
}

} // namespace

std::string jsonArgument(FunctionCallInfo fcinfo, int number, const char *name, JsonKind kind)
{
    std::string text = callServer([&] {
        return server::serverToUtf8(DatumGetCString(DirectFunctionCall1(jsonb_out, PG_GETARG_DATUM(number))));
    });
    checkUtf8(text, name);
    const bool isObject = kind == JsonKind::Object;
    if (text.front() != (isObject ? '{' : '['))
        throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE, std::string("argument \"") + name + "\" takes " +
                                                            (isObject ? "a JSON object" : "a JSON array"));
    return text;
}

std::vector<std::string> textsArgument(FunctionCallInfo fcinfo, int number, const char *name)
{
    const Texts texts = callServer([&] { return textsOf(DatumGetArrayTypeP(PG_GETARG_DATUM(number))); });
    if (texts.hasNull)
        throw FdwError(ERRCODE_NULL_VALUE_NOT_ALLOWED, std::string("argument \"") + name + "\" holds a NULL");
    std::vector<std::string> all(texts.first, texts.first + texts.count);
    for (const std::string &text : all)
        checkUtf8(text, name);
    return all;
}

std::string textArgument(FunctionCallInfo fcinfo, int number, const char *name)
{
    std::string argument =
        callServer([&] { return server::serverToUtf8(TextDatumGetCString(PG_GETARG_DATUM(number))); });
    checkUtf8(argument, name);
    return argument;
}

} // namespace qm::functions
