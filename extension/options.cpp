// The options of veltranesearch.
#include "server/errorBoundary.h"

#include "extension/options.h"
#include "extension/optionValues.h"
#include "server/catalog.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace qm::extension
{

using server::callServer;
using server::FdwError;

namespace
{

// Where the values of options of all catalogs go.
struct AnyOptions : TableOptions {
    ColumnOptions column;
};

struct Known {
    const char *name;
    Oid catalog;
    const char *preset; // what counts as long as it is not set; null: nothing
    void (*read)(AnyOptions &options, const OptionValue &value);
    const char *help;
    bool namesFile = false; // which only superusers may do
};

// Every option there is: the validator, the reading at the start of a scan and the documentation go by this
// table.
constexpr Known AllOptions[] = {
    {"address", ForeignServerRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.cluster.nodes = value.asClusterUrls(); },
     "URL of the cluster: scheme, host, port and, behind a proxy, a path prefix; or several, of its nodes, "
     "separated by commas"},
    {"connecttimeout", ForeignServerRelationId, "10000",
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.connectTimeoutMs = value.asMilliseconds();
     },
     "milliseconds to connect in"},
    {"timeout", ForeignServerRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.timeoutMs = value.asMilliseconds();
     },
     "milliseconds that a request may take; without it, as long as statement_timeout lets it"},
    {"cafile", ForeignServerRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.cluster.settings.caFile = value.asFile(); },
     "absolute path of a file of certificate authorities (PEM) in place of the system's", true},
    {"tlsverify", ForeignServerRelationId, "true",
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.verifiesTls = value.asBoolean();
     },
     "whether the cluster must prove itself with a certificate"},
    {"proxy", ForeignServerRelationId, "",
     [](AnyOptions &options, const OptionValue &value) { options.cluster.settings.proxy = value.asProxy(); },
     "URL of an HTTP proxy; without it none is used, whatever the environment says"},
    {"retries", ForeignServerRelationId, "3",
     [](AnyOptions &options, const OptionValue &value) { options.cluster.retries = value.asNumber(0, 10); },
     "further tries, 0 to 10, of a request that the cluster cannot take now and that may be sent again"},
    {"keepconnections", ForeignServerRelationId, "true",
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.keepsConnections = value.asBoolean();
     },
     "whether a session keeps its connections for its next requests"},
    {"pageahead", ForeignServerRelationId, "true",
     [](AnyOptions &options, const OptionValue &value) { options.cluster.fetchesAhead = value.asBoolean(); },
     "whether the next page of a large result is fetched while one is read"},
    {"httpcompression", ForeignServerRelationId, "false",
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.compresses = value.asBoolean();
     },
     "whether the cluster may compress its responses (gzip)"},
    {"opaqueid", ForeignServerRelationId, "true",
     [](AnyOptions &options, const OptionValue &value) { options.cluster.tellsOrigin = value.asBoolean(); },
     "whether requests say in X-Opaque-Id which session they come from: application_name and process id"},
    {"requestcost", ForeignServerRelationId, "100",
     [](AnyOptions &options, const OptionValue &value) { options.requestCost = value.asCost(); },
     "planner's cost of a request"},
    {"rowcost", ForeignServerRelationId, "0.05",
     [](AnyOptions &options, const OptionValue &value) { options.rowCost = value.asCost(); },
     "planner's cost of fetching a row"},

    {"username", UserMappingRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.userName = value.asUserName();
     },
     "user of the cluster, for basic authentication"},
    {"password", UserMappingRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.cluster.settings.password = value.utf8(); },
     "password of that user"},
    {"apikey", UserMappingRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.authorization = "Authorization: ApiKey " + value.asApiKey();
     },
     "encoded API key, in place of user and password"},
    {"clientcert", UserMappingRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.clientCertificate = value.asFile();
     },
     "absolute path of a client certificate (PEM)", true},
    {"clientkey", UserMappingRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.cluster.settings.clientKey = value.asFile();
     },
     "absolute path of the key that belongs to it (PEM)", true},

    {"indexlist", ForeignTableRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.indices = value.asIndices(); },
     "index, alias or data stream, or several separated by commas; * stands for any characters"},
    {"batchsize", ForeignTableRelationId, "1000",
     [](AnyOptions &options, const OptionValue &value) { options.batchSize = value.asNumber(1, 10000); },
     "hits a page of a large result, 1 to 10000"},
    {"compressionlevel", ForeignTableRelationId, "5",
     [](AnyOptions &options, const OptionValue &value) { options.compressionLevel = value.asNumber(-2, 9); },
     "of bytea columns: -2 as they are, -1 zlib's default, 0 to 9 zlib's levels"},
    {"scrolltimeout", ForeignTableRelationId, "5m",
     [](AnyOptions &options, const OptionValue &value) { options.scrollTimeout = value.asTimeValue(); },
     "how long the cluster keeps a large result between two pages"},
    {"partialresults", ForeignTableRelationId, "error",
     [](AnyOptions &options, const OptionValue &value) {
         options.partialResults =
             value.asChoice({"error", "warning"}) == 0 ? PartialResults::Error : PartialResults::Warning;
     },
     "error or warning: what to do when shards failed or the search timed out"},
    {"estimatedrows", ForeignTableRelationId, "100000",
     [](AnyOptions &options, const OptionValue &value) {
         options.estimatedRows = value.asNumber(1, 2000000000);
     },
     "planner's idea of the number of documents, until ANALYZE has counted them"},

    {"badvalues", ForeignTableRelationId, "error",
     [](AnyOptions &options, const OptionValue &value) {
         options.nullsBadValues = value.asChoice({"error", "null"}) == 1;
     },
     "error or null: what to make of a field's value that does not fit its column"},

    {"field", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.column.field = value.asFieldName(); },
     "path of the field in the source, where it is not the column's name"},
    {"format", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         constexpr DateFormat Formats[] = {DateFormat::EpochMillis, DateFormat::EpochSecond};
         options.column.dateFormat = Formats[value.asChoice({"epoch_millis", "epoch_second"})];
     },
     "epoch_millis or epoch_second: the field holds its dates as numbers"},
    {"search", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         constexpr int AfterNone = 1;
         options.column.mapped = static_cast<MappedType>(
             AfterNone +
             value.asChoice({"keyword", "byte", "short", "integer", "long", "unsigned_long", "half_float",
                             "float", "double", "scaled_float", "date", "boolean", "ip"}));
     },
     "type of the field in the index's mapping, by which the search may look for its values"},
    {"searchfield", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.column.searchField = value.asFieldName(); },
     "path of the field that the search looks in, where it is another than the column shows"},
    {"ignoreabove", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) {
         options.column.ignoreAbove = value.asNumber(0, INT32_MAX);
     },
     "the mapping's ignore_above: longer texts are not indexed"},
    {"scalingfactor", AttributeRelationId, nullptr,
     [](AnyOptions &options, const OptionValue &value) { options.column.scalingFactor = value.asPositive(); },
     "the mapping's scaling_factor of a scaled_float"},
};

std::vector<OptionValue> valuesOf(List *definitions)
{
    std::vector<OptionValue> values;
    ListCell *cell;
    foreach (cell, definitions) {
        auto *definition = static_cast<DefElem *>(lfirst(cell));
        values.emplace_back(definition->defname, callServer([&] { return defGetString(definition); }));
    }
    return values;
}

const Known *find(Oid catalog, const char *name)
{
    const Known *found = std::find_if(std::begin(AllOptions), std::end(AllOptions), [&](const Known &known) {
        return known.catalog == catalog && std::strcmp(known.name, name) == 0;
    });
    return found == std::end(AllOptions) ? nullptr : found;
}

// Reads the presets of a catalog and then what is set. What DDL has let in is known; a later version's may
// not be.
void read(AnyOptions &options, Oid catalog, List *definitions)
{
    for (const Known &known : AllOptions)
        if (known.catalog == catalog && known.preset)
            known.read(options, OptionValue(known.name, known.preset));
    for (const OptionValue &value : valuesOf(definitions))
        if (const Known *known = find(catalog, value.optionName()))
            known->read(options, value);
}

// The option that a misspelt name is nearest to, or what there is to choose from.
std::string hintFor(Oid catalog, const char *name)
{
    std::string all;
    const Known *nearest = nullptr;
    int least = 4; // further away it is no slip of the hand
    for (const Known &known : AllOptions) {
        if (known.catalog != catalog)
            continue;
        all += (all.empty() ? "" : ", ") + std::string(known.name);
        const int distance = callServer([&] {
            return varstr_levenshtein(name, static_cast<int>(std::strlen(name)), known.name,
                                      static_cast<int>(std::strlen(known.name)), 1, 1, 1, true);
        });
        if (distance < least) {
            least = distance;
            nearest = &known;
        }
    }
    if (nearest)
        return std::string("Perhaps you meant the option \"") + nearest->name + "\": " + nearest->help + ".";
    return all.empty() ? "There are no options in this context."
                       : "Valid options in this context are: " + all;
}

void requireAddress(const TableOptions &options)
{
    if (options.cluster.nodes.empty())
        throw FdwError(ERRCODE_FDW_OPTION_NAME_NOT_FOUND,
                       "option \"address\" of the foreign server is required");
}

void requireIndices(const TableOptions &options)
{
    if (options.indices.empty())
        throw FdwError(ERRCODE_FDW_OPTION_NAME_NOT_FOUND,
                       "option \"indexlist\" of the foreign table is required")
            .hinted("Name the index, or \"_all\" for all of them.");
}

void checkColumn(const ColumnOptions &options)
{
    if (options.mapped == MappedType::ScaledFloat && options.scalingFactor == 0)
        throw FdwError(ERRCODE_FDW_OPTION_NAME_NOT_FOUND,
                       "option \"search\" 'scaled_float' takes effect only with option \"scalingfactor\"");
    if (options.mapped == MappedType::None && !options.searchField.empty())
        throw FdwError(ERRCODE_FDW_OPTION_NAME_NOT_FOUND,
                       "option \"searchfield\" takes effect only with option \"search\"");
}

void checkCredentials(const http::Settings &settings)
{
    if (!settings.password.empty() && settings.userName.empty())
        throw FdwError(ERRCODE_FDW_ERROR, "option \"password\" takes effect only with option \"username\"");
    if (!settings.userName.empty() && !settings.authorization.empty())
        throw FdwError(ERRCODE_FDW_ERROR, "options \"username\" and \"apikey\" exclude each other");
    if (settings.clientCertificate.empty() != settings.clientKey.empty())
        throw FdwError(ERRCODE_FDW_ERROR,
                       "options \"clientcert\" and \"clientkey\" take effect only together");
}

const Known &require(Oid catalog, const char *name)
{
    const Known *known = find(catalog, name);
    if (!known)
        throw FdwError(ERRCODE_FDW_INVALID_OPTION_NAME, std::string("invalid option \"") + name + "\"")
            .hinted(hintFor(catalog, name));
    return *known;
}

void checkTogether(const AnyOptions &options, Oid catalog)
{
    if (catalog == ForeignServerRelationId)
        requireAddress(options);
    if (catalog == ForeignTableRelationId)
        requireIndices(options);
    if (catalog == AttributeRelationId)
        checkColumn(options.column);
    if (catalog == UserMappingRelationId)
        checkCredentials(options.cluster.settings);
}

void readServer(AnyOptions &options, Oid serverId)
{
    const ForeignServer *server = callServer([&] { return GetForeignServer(serverId); });
    options.serverId = serverId;
    read(options, ForeignServerRelationId, server->options);
    requireAddress(options);
}

void readUser(AnyOptions &options, Oid serverId, Oid userId)
{
    // A search may take its time in silence; that its cluster is gone must be noticed all the same.
    options.cluster.settings.keepsAlive = true;
    options.userId = userId;
    read(options, UserMappingRelationId,
         callServer([&] { return server::userMappingOptions(serverId, userId); }));
    checkCredentials(options.cluster.settings);
}

// Reads what a table and its server say; returns the server.
Oid readTable(AnyOptions &options, Oid tableId)
{
    const ForeignTable *table = callServer([&] { return GetForeignTable(tableId); });
    read(options, ForeignTableRelationId, table->options);
    requireIndices(options);
    readServer(options, table->serverid);
    return table->serverid;
}

} // namespace

TableOptions readTableOptions(Oid tableId)
{
    AnyOptions options;
    readTable(options, tableId);
    return options;
}

TableOptions readOptions(Oid tableId, Oid userId)
{
    AnyOptions options;
    const Oid serverId = readTable(options, tableId);
    readUser(options, serverId, userId);
    return options;
}

search::Cluster readCluster(Oid serverId, Oid userId)
{
    AnyOptions options;
    readServer(options, serverId);
    readUser(options, serverId, userId);
    return options.cluster;
}

ColumnOptions readColumnOptions(Oid tableId, AttrNumber attribute)
{
    AnyOptions options;
    read(options, AttributeRelationId,
         callServer([&] { return GetForeignColumnOptions(tableId, attribute); }));
    return options.column;
}

ColumnOptions columnOptionsFor(const Searchable &searchable)
{
    AnyOptions options;
    const auto set = [&](const char *name, const std::string &value) {
        if (!value.empty())
            find(AttributeRelationId, name)->read(options, OptionValue(name, value.c_str()));
    };
    set("search", searchable.type);
    set("ignoreabove", searchable.ignoreAbove);
    set("scalingfactor", searchable.scalingFactor);
    options.column.searchField = searchable.field; // which is in UTF-8 already
    return options.column;
}

void validateOptions(List *definitions, Oid catalog)
{
    AnyOptions options;
    for (const OptionValue &value : valuesOf(definitions)) {
        const Known &known = require(catalog, value.optionName());
        if (known.namesFile && !callServer([] { return superuser(); }))
            throw FdwError(ERRCODE_INSUFFICIENT_PRIVILEGE,
                           std::string("only superusers may set the option \"") + known.name + "\"");
        known.read(options, value);
    }
    checkTogether(options, catalog);
}

std::vector<FdwError> faultsIn(List *definitions, Oid catalog)
{
    std::vector<FdwError> faults;
    const auto note = [&](auto &&check) {
        try {
            check();
        } catch (FdwError &fault) {
            faults.push_back(std::move(fault));
        }
    };
    AnyOptions options;
    bool isRead = true;
    for (const OptionValue &value : valuesOf(definitions)) {
        note([&] { require(catalog, value.optionName()); });
        const Known *known = find(catalog, value.optionName());
        const std::size_t before = faults.size();
        if (known)
            note([&] { known->read(options, value); });
        isRead = isRead && (!known || faults.size() == before);
    }
    if (isRead)
        note([&] { checkTogether(options, catalog); });
    return faults;
}

} // namespace qm::extension
