// The options: of the foreign table, of the foreign server, of the user mapping. Unknown names are passed
// over.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwEncoding.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>
#include <utility>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::FdwError;

namespace
{

struct Option {
    const char *name;
    const char *value;
};

struct Options {
    const Option *first;
    int count;

    const Option *begin() const { return first; }
    const Option *end() const { return first + count; }
};

// [server side] Names and values of a list of definitions, in their order and in the current memory context.
Options optionsOf(List *definitions)
{
    auto *options = static_cast<Option *>(palloc(sizeof(Option) * (list_length(definitions) + 1)));
    int count = 0;
    ListCell *cell;
    foreach (cell, definitions) {
        auto *definition = static_cast<DefElem *>(lfirst(cell));
        options[count++] = {definition->defname, serverToUtf8(defGetString(definition))};
    }
    return {options, count};
}

// [server side] The options of the user's mapping or else of the public one; empty without either.
List *userMappingOptions(Oid serverId, Oid userId)
{
    HeapTuple tuple = nullptr;
    for (const Oid user : {userId, InvalidOid}) {
        tuple = SearchSysCache2(USERMAPPINGUSERSERVER, ObjectIdGetDatum(user), ObjectIdGetDatum(serverId));
        if (HeapTupleIsValid(tuple))
            break;
    }
    if (!HeapTupleIsValid(tuple))
        return NIL;
    bool isNull;
    const Datum stored =
        SysCacheGetAttr(USERMAPPINGUSERSERVER, tuple, Anum_pg_user_mapping_umoptions, &isNull);
    List *options = isNull ? NIL : untransformRelOptions(stored);
    ReleaseSysCache(tuple);
    return options;
}

bool named(const Option &option, const char *name) { return std::strcmp(option.name, name) == 0; }

[[noreturn]] void refuse(const Option &option, const char *what, const char *function = __builtin_FUNCTION())
{
    throw FdwError(ERRCODE_FDW_ERROR, std::string("option '") + option.name + "' takes " + what, function);
}

bool isBlankOrControl(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte <= ' ' || byte == 0x7F;
}

bool hasBlankOrControl(const char *text)
{
    for (; *text; ++text) {
        if (isBlankOrControl(*text))
            return true;
    }
    return false;
}

// A part of a request's URL must not smuggle in another request or another protocol.
void checkUrlPart(const Option &option)
{
    if (hasBlankOrControl(option.value))
        refuse(option, "no blanks, line breaks or other control characters");
}

void checkAddress(const Option &option)
{
    checkUrlPart(option);
    const char *rest = std::strstr(option.value, ":/");
    if (!rest)
        return; // no scheme: plain HTTP
    const std::string scheme(option.value, rest);
    if (strcasecmp(scheme.c_str(), "http") != 0 && strcasecmp(scheme.c_str(), "https") != 0)
        refuse(option, "addresses of the schemes http and https only");
}

int32 positiveNumber(const Option &option, const char *what)
{
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(option.value, &end, 10);
    if (errno != 0 || end == option.value || *end != '\0' || value < 1 || value > INT32_MAX)
        refuse(option, what);
    return static_cast<int32>(value);
}

int32 milliseconds(const Option &option)
{
    return positiveNumber(option, "a whole number of milliseconds from 1 to 2147483647");
}

PartialResults partialResultsOf(const Option &option)
{
    constexpr std::pair<const char *, PartialResults> choices[] = {{"ignore", PartialResults::Ignore},
                                                                   {"warning", PartialResults::Warning},
                                                                   {"error", PartialResults::Error}};
    for (const auto &[name, choice] : choices) {
        if (std::strcmp(option.value, name) == 0)
            return choice;
    }
    refuse(option, "'ignore', 'warning' or 'error'");
}

bool isTrue(const Option &option)
{
    if (std::strcmp(option.value, "true") != 0 && std::strcmp(option.value, "false") != 0)
        refuse(option, "'true' or 'false'");
    return std::strcmp(option.value, "true") == 0;
}

void readTableOption(ElasticSearchConnector *connector, const Option &option)
{
    if (named(option, "address")) {
        checkAddress(option);
        connector->address = replaceString(connector->address, option.value);
    } else if (named(option, "port")) {
        checkUrlPart(option);
        connector->port = replaceString(connector->port, option.value);
    } else if (named(option, "indexlist")) {
        checkUrlPart(option);
        connector->indexList = replaceString(connector->indexList, option.value);
    } else if (named(option, "scrolltimeout")) {
        checkUrlPart(option);
        connector->scrollTimeout = replaceString(connector->scrollTimeout, option.value);
    } else if (named(option, "batchsize")) {
        const auto size = static_cast<int32>(std::strtol(option.value, nullptr, 10));
        if (size > 0)
            connector->batchSize = size;
    } else if (named(option, "compressionlevel")) {
        connector->compressionLevel = parseCompressionLevel(option.value);
    } else if (named(option, "fullerrormsg")) {
        connector->fullErrorMsg = std::strcmp(option.value, "true") == 0;
    } else if (named(option, "esversion")) {
        connector->esVersion =
            positiveNumber(option, "a whole number, the major version of the search servers");
    } else if (named(option, "partialresults")) {
        connector->partialResults = partialResultsOf(option);
    }
}

void readServerOption(ConnectionSettings &settings, const Option &option)
{
    if (named(option, "connecttimeout")) {
        settings.connectTimeoutMs = milliseconds(option);
    } else if (named(option, "timeout")) {
        settings.timeoutMs = milliseconds(option);
    } else if (named(option, "tlsverify")) {
        settings.skipTlsVerification = !isTrue(option);
    } else if (named(option, "cafile")) {
        if (option.value[0] != '/' || access(option.value, R_OK) != 0)
            refuse(option, "the absolute path of a file that the server can read");
        settings.caFile = replaceString(settings.caFile, option.value);
    }
}

// The texts of these errors never show a value.
void readUserOption(ConnectionSettings &settings, const Option &option)
{
    if (named(option, "username")) {
        if (!option.value[0] || std::strchr(option.value, ':') || hasBlankOrControl(option.value))
            refuse(option, "a name without colons, blanks and control characters");
        settings.userName = replaceString(settings.userName, option.value);
    } else if (named(option, "password")) {
        settings.password = replaceString(settings.password, option.value);
    } else if (named(option, "apikey")) {
        if (!option.value[0] || hasBlankOrControl(option.value))
            refuse(option, "an encoded key without blanks and control characters");
        settings.authorization = replaceString(
            settings.authorization, (std::string("Authorization: ApiKey ") + option.value).c_str());
    }
}

} // namespace

void readTableOptions(ElasticSearchConnector *connector)
{
    const ForeignTable *table = callServer([&] { return GetForeignTable(connector->tableOid); });
    for (const Option &option : callServer([&] { return optionsOf(table->options); }))
        readTableOption(connector, option);
    connector->serverOid = table->serverid;
}

void readConnectionOptions(ConnectionSettings &settings, Oid serverId, Oid userId)
{
    const ForeignServer *server = callServer([&] { return GetForeignServer(serverId); });
    for (const Option &option : callServer([&] { return optionsOf(server->options); }))
        readServerOption(settings, option);
    List *mapping = callServer([&] { return userMappingOptions(serverId, userId); });
    for (const Option &option : callServer([&] { return optionsOf(mapping); }))
        readUserOption(settings, option);

    if (settings.password && !settings.userName)
        throw FdwError(ERRCODE_FDW_ERROR, "option 'password' takes effect only with option 'username'");
    if (settings.userName && settings.authorization)
        throw FdwError(ERRCODE_FDW_ERROR, "options 'username' and 'apikey' exclude each other");
}

} // namespace qm::pgFdwElaticSearch
