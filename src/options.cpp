// The options: of the foreign table, of the foreign server, of the user mapping.
#include "options.h"
#include "http/url.h"
#include "parameters.h"
#include "server/catalog.h"
#include "server/encoding.h"
#include "server/memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::ConnectorTypes;
using server::callServer;
using server::FdwError;
using server::replaceString;

namespace
{

struct Option {
    const char *name;
    const char *value; // in the database's encoding

    // The value as it goes to the search cluster.
    const char *utf8() const
    {
        return callServer([&] { return server::serverToUtf8(value); });
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

// ---- values ----------------------------------------------------------------------------------------------

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
    for (; *text; ++text)
        if (isBlankOrControl(*text))
            return true;
    return false;
}

// A part of a request's URL, which must not smuggle in another request, another path or another protocol.
const char *urlPart(const Option &option)
{
    if (hasBlankOrControl(option.value))
        refuse(option, "no blanks, line breaks or other control characters");
    if (std::strpbrk(option.value, "?#"))
        refuse(option, "no question marks and number signs");
    if (http::hasDotSegment(option.value))
        refuse(option, "no path segments '.' and '..'");
    return option.utf8();
}

const char *addressOf(const Option &option)
{
    const char *address = urlPart(option);
    const char *rest = std::strstr(option.value, ":/");
    const std::string scheme(option.value, rest ? rest - option.value : 0);
    if (rest && strcasecmp(scheme.c_str(), "http") != 0 && strcasecmp(scheme.c_str(), "https") != 0)
        refuse(option, "addresses of the schemes http and https only");
    return address;
}

const char *portOf(const Option &option)
{
    const size_t length = std::strlen(option.value);
    const long number = length <= 5 ? std::strtol(option.value, nullptr, 10) : 0;
    if (std::strspn(option.value, "0123456789") != length || number < 1 || number > 65535)
        refuse(option, "a number from 1 to 65535");
    return option.value;
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

int32 batchSizeOf(const Option &option, int32 current)
{
    const auto size = static_cast<int32>(std::strtol(option.value, nullptr, 10));
    return size > 0 ? size : current;
}

PartialResults partialResultsOf(const Option &option)
{
    constexpr std::pair<const char *, PartialResults> Choices[] = {{"ignore", PartialResults::Ignore},
                                                                   {"warning", PartialResults::Warning},
                                                                   {"error", PartialResults::Error}};
    for (const auto &[name, choice] : Choices)
        if (std::strcmp(option.value, name) == 0)
            return choice;
    refuse(option, "'ignore', 'warning' or 'error'");
}

bool isTrue(const Option &option)
{
    if (std::strcmp(option.value, "true") != 0 && std::strcmp(option.value, "false") != 0)
        refuse(option, "'true' or 'false'");
    return std::strcmp(option.value, "true") == 0;
}

// Regular files only: reading a pipe would wait for its writer, and nothing could end that.
const char *fileOf(const Option &option)
{
    struct stat about;
    if (option.value[0] != '/' || stat(option.value, &about) != 0 || !S_ISREG(about.st_mode) ||
        access(option.value, R_OK) != 0)
        refuse(option, "the absolute path of a file that the server can read");
    return option.value;
}

// What takes these never shows a value in a message.
const char *userNameOf(const Option &option)
{
    if (!option.value[0] || std::strchr(option.value, ':') || hasBlankOrControl(option.value))
        refuse(option, "a name without colons, blanks and control characters");
    return option.utf8();
}

std::string apiKeyHeaderOf(const Option &option)
{
    if (!option.value[0] || hasBlankOrControl(option.value))
        refuse(option, "an encoded key without blanks and control characters");
    return std::string("Authorization: ApiKey ") + option.utf8();
}

// ---- the table of them -----------------------------------------------------------------------------------

enum class Catalog { Table, Server, Mapping };

using Record = ElasticSearchConnector;
using Reader = void (*)(Record &record, const Option &option);

// The table option connectortype is read at plan time, by findConnectorType.
constexpr struct {
    const char *name;
    Catalog catalog;
    const char *preset; // what counts as long as it is not set; null: nothing
    Reader read;
} Known[] = {
    {"address", Catalog::Table, nullptr,
     [](Record &record, const Option &option) { replaceString(record.address, addressOf(option)); }},
    {"port", Catalog::Table, nullptr,
     [](Record &record, const Option &option) { replaceString(record.port, portOf(option)); }},
    {"indexlist", Catalog::Table, "_all",
     [](Record &record, const Option &option) { replaceString(record.indexList, urlPart(option)); }},
    {"batchsize", Catalog::Table, "10",
     [](Record &record, const Option &option) { record.batchSize = batchSizeOf(option, record.batchSize); }},
    {"compressionlevel", Catalog::Table, "5",
     [](Record &record, const Option &option) {
         record.compressionLevel = parseCompressionLevel(option.value);
     }},
    {"fullerrormsg", Catalog::Table, "false",
     [](Record &record, const Option &option) {
         record.fullErrorMsg = std::strcmp(option.value, "true") == 0;
     }},
    {"scrolltimeout", Catalog::Table, "5m",
     [](Record &record, const Option &option) {
         if (record.connectorType == ConnectorTypes::ElasticSearchScroll) // nothing else uses it
             replaceString(record.scrollTimeout, urlPart(option));
     }},
    {"esversion", Catalog::Table, nullptr,
     [](Record &record, const Option &option) {
         record.dialect =
             &dialectOf(positiveNumber(option, "a whole number, the major version of the search servers"));
     }},
    {"partialresults", Catalog::Table, "warning",
     [](Record &record, const Option &option) { record.partialResults = partialResultsOf(option); }},
    {"address", Catalog::Server, nullptr,
     [](Record &record, const Option &option) { replaceString(record.serverAddress, addressOf(option)); }},
    {"port", Catalog::Server, nullptr,
     [](Record &record, const Option &option) { replaceString(record.serverPort, portOf(option)); }},
    {"connecttimeout", Catalog::Server, nullptr,
     [](Record &record, const Option &option) {
         record.connection->connectTimeoutMs = milliseconds(option);
     }},
    {"timeout", Catalog::Server, nullptr,
     [](Record &record, const Option &option) { record.connection->timeoutMs = milliseconds(option); }},
    {"tlsverify", Catalog::Server, "true",
     [](Record &record, const Option &option) { record.connection->verifiesTls = isTrue(option); }},
    {"cafile", Catalog::Server, nullptr,
     [](Record &record, const Option &option) { record.connection->caFile = fileOf(option); }},
    {"username", Catalog::Mapping, nullptr,
     [](Record &record, const Option &option) { record.connection->userName = userNameOf(option); }},
    {"password", Catalog::Mapping, nullptr,
     [](Record &record, const Option &option) { record.connection->password = option.utf8(); }},
    {"apikey", Catalog::Mapping, nullptr,
     [](Record &record, const Option &option) { record.connection->authorization = apiKeyHeaderOf(option); }},
};

void read(ElasticSearchConnector *connector, Catalog catalog, List *definitions)
{
    for (const auto &known : Known)
        if (known.catalog == catalog && known.preset)
            known.read(*connector, {known.name, known.preset});
    for (const Option &option : callServer([&] { return optionsOf(definitions); }))
        for (const auto &known : Known)
            if (known.catalog == catalog && std::strcmp(known.name, option.name) == 0)
                known.read(*connector, option);
}

void settlePlace(ElasticSearchConnector *connector)
{
    const char *serverAddress = connector->serverAddress;
    const char *serverPort = connector->serverPort;
    if (!connector->address)
        connector->address = connector->serverAddress;
    if (!connector->port)
        connector->port = connector->serverPort;
    if (!connector->address || !connector->port)
        throw FdwError(ERRCODE_FDW_ERROR, "missing options on elastic search table");

    if (connector->connection->hasCredentials() &&
        !(serverAddress && serverPort &&
          http::isSamePlace(http::clusterUrl(connector->address, connector->port),
                            http::clusterUrl(serverAddress, serverPort))))
        throw FdwError(ERRCODE_FDW_ERROR,
                       "the credentials of the user mapping are only sent where the options "
                       "'address' and 'port' of the foreign server say");
}

} // namespace

int32 findConnectorType(Oid foreignTableId)
{
    ListCell *cell;
    foreach (cell, GetForeignTable(foreignTableId)->options) {
        auto *option = static_cast<DefElem *>(lfirst(cell));
        if (std::strcmp(option->defname, "connectortype") != 0)
            continue;
        const char *value = defGetString(option);
        if (std::strcmp(value, "elasticsearch") == 0)
            return static_cast<int32>(ConnectorTypes::ElasticSearchStd);
        if (std::strcmp(value, "elasticsearchscroll") == 0)
            return static_cast<int32>(ConnectorTypes::ElasticSearchScroll);
    }
    return 0;
}

void readTableOptions(ElasticSearchConnector *connector)
{
    const ForeignTable *table = callServer([&] { return GetForeignTable(connector->tableOid); });
    connector->serverOid = table->serverid;
    read(connector, Catalog::Table, table->options);
}

void readConnectionOptions(ElasticSearchConnector *connector, Oid userId)
{
    const ForeignServer *server = callServer([&] { return GetForeignServer(connector->serverOid); });
    read(connector, Catalog::Server, server->options);
    read(connector, Catalog::Mapping,
         callServer([&] { return server::userMappingOptions(connector->serverOid, userId); }));

    const http::Settings &settings = *connector->connection;
    if (!settings.password.empty() && settings.userName.empty())
        throw FdwError(ERRCODE_FDW_ERROR, "option 'password' takes effect only with option 'username'");
    if (!settings.userName.empty() && !settings.authorization.empty())
        throw FdwError(ERRCODE_FDW_ERROR, "options 'username' and 'apikey' exclude each other");
    settlePlace(connector);
}

} // namespace qm::pgFdwElaticSearch
