// The options: of the foreign table, of the foreign server, of the user mapping. Unknown names are passed
// over.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwEncoding.h"
#include "quelmoraPgFdwUrl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>
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
    const char *value; // in the database's encoding

    // The value as it goes to the search cluster.
    const char *utf8() const
    {
        return callServer([&] { return serverToUtf8(value); });
    }
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
        options[count++] = {definition->defname, defGetString(definition)};
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

// Whether a segment of the path, up to the next slash, leads elsewhere: "." and "..", also percent-encoded.
bool isDotSegment(std::string segment)
{
    for (size_t at; (at = segment.find("%2e")) != std::string::npos || (at = segment.find("%2E")) != std::string::npos;)
        segment.replace(at, 3, ".");
    return segment == "." || segment == "..";
}

// A part of a request's URL must not smuggle in another request, another path or another protocol.
void checkUrlPart(const Option &option)
{
    if (hasBlankOrControl(option.value))
        refuse(option, "no blanks, line breaks or other control characters");
    if (std::strpbrk(option.value, "?#"))
        refuse(option, "no question marks and number signs");
    for (const char *segment = option.value; segment;) {
        const char *slash = std::strchr(segment, '/');
        if (isDotSegment(slash ? std::string(segment, slash) : std::string(segment)))
            refuse(option, "no path segments '.' and '..'");
        segment = slash ? slash + 1 : nullptr;
    }
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

void checkPort(const Option &option)
{
    const size_t length = std::strlen(option.value);
    const long number = length <= 5 ? std::strtol(option.value, nullptr, 10) : 0;
    if (std::strspn(option.value, "0123456789") != length || number < 1 || number > 65535)
        refuse(option, "a number from 1 to 65535");
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

// The options that say where the requests go; the table and the server may have them.
bool readPlaceOption(char *&address, char *&port, const Option &option)
{
    if (named(option, "address")) {
        checkAddress(option);
        address = replaceString(address, option.utf8());
    } else if (named(option, "port")) {
        checkPort(option);
        port = replaceString(port, option.value);
    } else {
        return false;
    }
    return true;
}

void readTableOption(ElasticSearchConnector *connector, const Option &option)
{
    if (readPlaceOption(connector->address, connector->port, option))
        return;
    if (named(option, "indexlist")) {
        checkUrlPart(option);
        connector->indexList = replaceString(connector->indexList, option.utf8());
    } else if (named(option, "scrolltimeout")) {
        if (connector->connectorType != qm::pgFdw::ConnectorTypes::ElasticSearchScroll)
            return; // nothing uses it
        checkUrlPart(option);
        connector->scrollTimeout = replaceString(connector->scrollTimeout, option.utf8());
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

// Regular files only: reading a pipe would wait for its writer, and nothing could end that.
bool isReadableFile(const char *path)
{
    struct stat about;
    return path[0] == '/' && stat(path, &about) == 0 && S_ISREG(about.st_mode) && access(path, R_OK) == 0;
}

void readServerOption(ConnectionSettings &settings, const Option &option)
{
    if (readPlaceOption(settings.address, settings.port, option))
        return;
    if (named(option, "connecttimeout")) {
        settings.connectTimeoutMs = milliseconds(option);
    } else if (named(option, "timeout")) {
        settings.timeoutMs = milliseconds(option);
    } else if (named(option, "tlsverify")) {
        settings.skipTlsVerification = !isTrue(option);
    } else if (named(option, "cafile")) {
        if (!isReadableFile(option.value))
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
        settings.userName = replaceString(settings.userName, option.utf8());
    } else if (named(option, "password")) {
        settings.password = replaceString(settings.password, option.utf8());
    } else if (named(option, "apikey")) {
        if (!option.value[0] || hasBlankOrControl(option.value))
            refuse(option, "an encoded key without blanks and control characters");
        settings.authorization = replaceString(
            settings.authorization, (std::string("Authorization: ApiKey ") + option.utf8()).c_str());
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

void settlePlace(ElasticSearchConnector *connector)
{
    const ConnectionSettings &settings = connector->connection;
    if (!connector->address)
        connector->address = settings.address;
    if (!connector->port)
        connector->port = settings.port;
    if (!connector->address || !connector->port)
        throw FdwError(ERRCODE_FDW_ERROR, "missing options on elastic search table");

    const bool hasCredentials = settings.userName || settings.authorization;
    const bool serverHasPlace = settings.address && settings.port;
    if (hasCredentials && !(serverHasPlace && isSamePlace(clusterUrl(connector->address, connector->port),
                                                          clusterUrl(settings.address, settings.port))))
        throw FdwError(ERRCODE_FDW_ERROR, "the credentials of the user mapping are only sent where the options "
                                          "'address' and 'port' of the foreign server say");
}

} // namespace qm::pgFdwElaticSearch
