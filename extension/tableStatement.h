// The statements that make imported tables, in the database's encoding.
#pragma once

#include "extension/importedColumns.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qm::extension
{

// A text of the cluster in the database's encoding; nothing where it cannot be written in it. Throws
// ServerError.
std::optional<std::string> inDatabaseEncoding(const std::string &utf8);

// Names for things which have longer ones, or ones that are taken.
class Names
{
public:
    // The name by which the thing of the path, in the database's encoding, is known from now on; the path
    // itself where that is possible. It does not depend on others that have no name yet.
    std::string take(const std::string &path);
    // Whether the path itself can be the name.
    bool isFree(const std::string &path) const;
    void reserve(const std::string &name) { taken.insert(name); }

private:
    std::set<std::string> taken;
};

// What does not go into a table.
struct LeftOut {
    std::vector<std::string> unwritable; // paths in UTF-8, whose characters the database does not have
    std::vector<std::string> beyond;     // paths for which there is no room
};

struct TableNames {
    std::string local;
    std::string remote;
    std::string server;
};

// CREATE FOREIGN TABLE.
std::string tableStatement(const TableNames &names, const std::vector<ImportedColumn> &columns,
                           LeftOut &leftOut);

} // namespace qm::extension
