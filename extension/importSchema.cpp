// IMPORT FOREIGN SCHEMA of veltranesearch: a table for each index, alias and data stream of a pattern.
#include "server/errorBoundary.h"

#include "extension/importSchema.h"
#include "extension/indexPattern.h"
#include "extension/options.h"
#include "extension/remoteTables.h"
#include "extension/tableStatement.h"
#include "search/failure.h"
#include "server/encoding.h"

#include <cstring>

namespace qm::extension
{

using server::callServer;
using server::FdwError;

namespace
{

constexpr const char *ArraysOption = "arrays";

// The fields that hold several values; no mapping tells.
class Arrays
{
public:
    // Throws FdwError for an option that there is not, and for one that names nothing.
    explicit Arrays(List *options);

    const std::set<std::string> &paths() const { return wanted; }
    void note(const std::vector<ImportedColumn> &columns);
    // Warns of those that no table has.
    void warn() const;

private:
    void take(const std::string &list);

    std::set<std::string> wanted;
    std::set<std::string> missing;
};

Arrays::Arrays(List *options)
{
    ListCell *cell;
    foreach (cell, options) {
        auto *option = static_cast<DefElem *>(lfirst(cell));
        if (std::strcmp(option->defname, ArraysOption) != 0)
            throw FdwError(ERRCODE_FDW_INVALID_OPTION_NAME,
                           std::string("invalid option \"") + option->defname + "\"")
                .hinted("IMPORT FOREIGN SCHEMA has the option \"arrays\": fields that hold several values, "
                        "separated by commas.");
        take(callServer([&] { return server::serverToUtf8(defGetString(option)); }));
    }
    missing = wanted;
}

void Arrays::take(const std::string &list)
{
    constexpr const char *Blanks = " \t\r\n";
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        const std::size_t first = std::min(list.find_first_not_of(Blanks, begin), end);
        std::string path = list.substr(first, end - first);
        path.erase(path.find_last_not_of(Blanks) + 1);
        if (path.empty())
            throw FdwError(ERRCODE_INVALID_PARAMETER_VALUE,
                           "option \"arrays\" takes names of fields, separated by commas");
        wanted.insert(path);
        begin = end + 1;
    }
}

void Arrays::note(const std::vector<ImportedColumn> &columns)
{
    for (const ImportedColumn &column : columns)
        missing.erase(column.path);
}

void Arrays::warn() const
{
    for (const std::string &path : missing) {
        const std::string name = search::quoted(path);
        callServer([&] {
            ereport(WARNING, (errcode(ERRCODE_FDW_COLUMN_NAME_NOT_FOUND),
                              errmsg("no imported table has the field \"%s\" of the option \"arrays\"",
                                     name.c_str())));
        });
    }
}

void notice(const std::string &message, const std::string &detail)
{
    callServer([&] {
        ereport(NOTICE, (errmsg_internal("%s", message.c_str()), errdetail_internal("%s", detail.c_str())));
    });
}

// Names as a message shows them.
std::string listed(const std::vector<std::string> &names)
{
    std::string all;
    for (const std::string &name : names)
        all += (all.empty() ? "" : ", ") + name;
    return search::quoted(all);
}

void noticeLeftOut(const std::string &table, const std::vector<ValuelessField> &valueless,
                   const LeftOut &leftOut)
{
    const std::string name = "table \"" + table + "\"";
    std::vector<std::string> fields;
    fields.reserve(valueless.size());
    for (const ValuelessField &field : valueless)
        fields.push_back(field.path + " (" + field.type + ")");
    if (!fields.empty())
        notice(name + " leaves out fields without a value of their own in documents", listed(fields));
    if (!leftOut.unwritable.empty())
        notice(name + " leaves out fields whose names this database cannot hold", listed(leftOut.unwritable));
    if (!leftOut.beyond.empty())
        notice(name + " has no room for all fields", "Left out: " + listed(leftOut.beyond));
}

[[noreturn]] void throwNothing(const std::string &pattern)
{
    throw FdwError(ERRCODE_FDW_SCHEMA_NOT_FOUND, "no index, alias or data stream matches \"" + pattern + "\"")
        .hinted("Hidden and closed indices, and those whose names begin with a dot, are left out.");
}

// Makes the statements of one import.
class Import
{
public:
    Import(ImportForeignSchemaStmt *statement, Oid serverId)
        : statement(statement),
          session(search::ClusterSession::of(serverId, GetUserId(), readCluster(serverId, GetUserId()))),
          arrays(statement->options)
    {
    }

    List *run();

private:
    void addTable(const RemoteTables &remote, const std::string &name, const RemoteTables::Indices &indices);

    ImportForeignSchemaStmt *const statement;
    const std::shared_ptr<search::ClusterSession> session;
    Arrays arrays;
    Names tableNames;
    List *made = NIL;
};

List *Import::run()
{
    const IndexPattern pattern(callServer([&] { return server::serverToUtf8(statement->remote_schema); }));
    if (!pattern.canMatch())
        throwNothing(statement->remote_schema);
    const RemoteTables remote(session, pattern);
    if (remote.tables().empty())
        throwNothing(statement->remote_schema);
    for (const auto &[name, indices] : remote.tables())
        addTable(remote, name, indices);
    arrays.warn();
    return made;
}

void Import::addTable(const RemoteTables &remote, const std::string &name,
                      const RemoteTables::Indices &indices)
{
    const std::optional<std::string> remoteName = inDatabaseEncoding(name);
    if (!remoteName) {
        notice("an index is left out because this database cannot hold its name", search::quoted(name));
        return;
    }
    const TableNames names = {tableNames.take(*remoteName), *remoteName, statement->server_name};
    if (!callServer([&] { return IsImportableForeignTable(names.local.c_str(), statement); }))
        return;
    ImportedColumns merged;
    for (const auto &[indexName, index] : indices)
        merged.add(remote.mappingOf(*index));
    const std::vector<ImportedColumn> columns = merged.columns(arrays.paths());
    arrays.note(columns);
    LeftOut leftOut;
    const std::string text = tableStatement(names, columns, leftOut);
    noticeLeftOut(names.local, merged.valueless(), leftOut);
    callServer([&] { made = lappend(made, pstrdup(text.c_str())); });
}

} // namespace

List *importForeignSchema(ImportForeignSchemaStmt *statement, Oid serverId)
{
    return server::guardEntry([&] { return Import(statement, serverId).run(); });
}

} // namespace qm::extension
