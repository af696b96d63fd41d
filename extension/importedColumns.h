// The columns of an imported table, out of the mappings of its indices.
#pragma once

#include "extension/mapping.h"

#include <map>
#include <set>

namespace qm::extension
{

struct ImportedColumn {
    std::string path;
    const char *type;   // in SQL
    const char *format; // the column option; null for none
    std::optional<Searchable> searchable;
};

// Brings the mappings of a table's indices together.
class ImportedColumns
{
public:
    // Takes the mapping of the next index. Throws FdwError for more fields than any table has.
    void add(const Mapping &mapping);

    // A column for each field that an index has, in the order in which they came; those of `arrays` are of
    // an array of the type.
    std::vector<ImportedColumn> columns(const std::set<std::string> &arrays) const;
    // The fields that no index has with values of their own.
    std::vector<ValuelessField> valueless() const;

private:
    struct Merged {
        std::string path;
        Kind kind;
        std::optional<Searchable> searchable;
        std::size_t indices;   // that have the field
        std::size_t lastIndex; // of them, counted from 1
    };

    void merge(const MappedField &field);

    std::vector<Merged> merged;
    std::map<std::string, std::size_t> places; // in `merged`
    std::map<std::string, std::string> withoutValue;
    std::set<std::string> parents;
    std::size_t indices = 0;
};

} // namespace qm::extension
