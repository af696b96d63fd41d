// The parameters of a search.
#include "parameters.h"
#include "parameterText.h"
#include "server/encoding.h"
#include "server/memory.h"

namespace qm::pgFdwElaticSearch
{

using server::callServer;
using server::FdwError;
using server::replaceString;

namespace
{

const char *toUtf8(const char *string)
{
    return callServer([&] { return server::serverToUtf8(string); });
}

void appendText(List *&list, const char *string)
{
    callServer([&] { list = lappend(list, cstring_to_text(string)); });
}

} // namespace

void ParseParam(const std::list<std::string> &paramValues, int &paramCompressionLevel, char *&query,
                char *&highlight, List *&sourceIncludeFilter, List *&sourceExcludeFilter)
{
    for (const std::string &param : paramValues) {
        const auto [name, value] = splitParam(param);
        switch (name) {
        case ParamName::Malformed:
            throw FdwError(ERRCODE_FDW_ERROR, "Malformed fdw param " + param + " ");
        case ParamName::Unknown:
            throw FdwError(ERRCODE_FDW_ERROR, "Unknown fdw param " + param + " ");
        case ParamName::Query:
            replaceString(query, toUtf8(value));
            break;
        case ParamName::SourceIncludeFilter:
            appendText(sourceIncludeFilter, toUtf8(value));
            break;
        case ParamName::SourceExcludeFilter:
            appendText(sourceExcludeFilter, toUtf8(value));
            break;
        case ParamName::CompressionLevel:
            paramCompressionLevel = parseCompressionLevel(value);
            break;
        case ParamName::Highlight:
            replaceString(highlight, toUtf8(value));
            break;
        }
    }
}

int parseCompressionLevel(const char *text)
{
    int level = 0;
    if (!readCompressionLevel(text, level))
        throw FdwError(ERRCODE_FDW_ERROR, "'compressionlevel' should be in range [-2;9]");
    return level;
}

} // namespace qm::pgFdwElaticSearch
