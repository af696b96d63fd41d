// The statements that make imported tables, in the database's encoding.
#include "server/errorBoundary.h"

#include "extension/tableStatement.h"

#include <cstdint>
#include <cstdio>

namespace qm::extension
{

using server::callServer;

namespace
{

constexpr std::size_t LongestName = NAMEDATALEN - 1;

// The columns that every imported table has, first.
constexpr const char *FirstColumns = "docname pg_catalog.text, score real, param pg_catalog.text";
constexpr std::size_t MostFields = MaxHeapAttributeNumber - 3;

// Columns that show something else than a field, and those that every table has.
constexpr const char *ReservedNames[] = {"docname",    "docindex", "score",   "doctype", "doccontent",
                                         "highlights", "param",    "ctid",    "xmin",    "cmin",
                                         "xmax",       "cmax",     "tableoid"};

// FNV-1a: the same text always makes the same name.
std::string digestOf(const std::string &text)
{
    std::uint32_t hash = 2166136261;
    for (const char each : text)
        hash = (hash ^ static_cast<unsigned char>(each)) * 16777619;
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", hash);
    return digits;
}

std::string clipped(const std::string &text, std::size_t most)
{
    const auto length = static_cast<int>(text.size());
    const int kept = callServer([&] { return pg_mbcliplen(text.c_str(), length, static_cast<int>(most)); });
    return text.substr(0, static_cast<std::size_t>(kept));
}

std::string identifier(const std::string &name)
{
    return callServer([&] { return quote_identifier(name.c_str()); });
}

std::string literal(const std::string &text)
{
    return callServer([&] { return static_cast<const char *>(quote_literal_cstr(text.c_str())); });
}

// The options of a column, one after the other.
class OptionList
{
public:
    void add(const char *name, const std::string &value)
    {
        text += (text.empty() ? " OPTIONS (" : ", ") + std::string(name) + " " + literal(value);
    }
    void addIfSet(const char *name, const std::string &value)
    {
        if (!value.empty())
            add(name, value);
    }
    std::string end() const { return text.empty() ? "" : text + ")"; }

private:
    std::string text;
};

// A column whose path can be written.
struct Writable {
    const ImportedColumn *column;
    std::string path;
    std::string name;
};

// A dotted path as column options have it.
bool isPath(const std::string &path)
{
    return !path.empty() && path.front() != '.' && path.back() != '.' && path.find("..") == std::string::npos;
}

void addSearchable(OptionList &options, const Searchable &searchable)
{
    const std::optional<std::string> field = inDatabaseEncoding(searchable.field);
    if (!field || (!field->empty() && !isPath(*field)))
        return;
    options.add("search", searchable.type);
    options.addIfSet("searchfield", *field);
    options.addIfSet("ignoreabove", searchable.ignoreAbove);
    options.addIfSet("scalingfactor", searchable.scalingFactor);
}

std::string definitionOf(const Writable &writable)
{
    const ImportedColumn &column = *writable.column;
    OptionList options;
    if (writable.name != writable.path)
        options.add("field", writable.path);
    if (column.format)
        options.add("format", column.format);
    if (column.searchable)
        addSearchable(options, *column.searchable);
    return identifier(writable.name) + " " + column.type + options.end();
}

// Names that need no change come first: whatever else is there, they stay.
void nameColumns(std::vector<Writable> &columns)
{
    Names names;
    for (const char *reserved : ReservedNames)
        names.reserve(reserved);
    for (Writable &column : columns)
        if (names.isFree(column.path))
            column.name = names.take(column.path);
    for (Writable &column : columns)
        if (column.name.empty())
            column.name = names.take(column.path);
}

std::vector<Writable> writableOf(const std::vector<ImportedColumn> &columns, LeftOut &leftOut)
{
    std::vector<Writable> writable;
    for (const ImportedColumn &column : columns) {
        std::optional<std::string> path;
        if (isPath(column.path))
            path = inDatabaseEncoding(column.path);
        if (!path)
            leftOut.unwritable.push_back(column.path);
        else if (writable.size() == MostFields)
            leftOut.beyond.push_back(column.path);
        else
            writable.push_back({&column, *path, ""});
    }
    return writable;
}

} // namespace

std::optional<std::string> inDatabaseEncoding(const std::string &utf8)
{
    if (utf8.find('\0') != std::string::npos)
        return std::nullopt;
    const auto length = static_cast<int>(utf8.size());
    try {
        return callServer([&]() -> const char * { return pg_any_to_server(utf8.c_str(), length, PG_UTF8); });
    } catch (const server::ServerError &error) {
        if (error.data && (error.data->sqlerrcode == ERRCODE_CHARACTER_NOT_IN_REPERTOIRE ||
                           error.data->sqlerrcode == ERRCODE_UNTRANSLATABLE_CHARACTER))
            return std::nullopt;
        throw;
    }
}

bool Names::isFree(const std::string &path) const
{
    return path.size() <= LongestName && taken.count(path) == 0;
}

std::string Names::take(const std::string &path)
{
    std::string name = path;
    if (path.size() <= LongestName && !isFree(name))
        name = clipped(path, LongestName - 6) + "_field";
    for (std::string text = path; !isFree(name); text += '.') {
        const std::string suffix = "_" + digestOf(text);
        name = clipped(path, LongestName - suffix.size()) + suffix;
    }
    taken.insert(name);
    return name;
}

std::string tableStatement(const TableNames &names, const std::vector<ImportedColumn> &columns,
                           LeftOut &leftOut)
{
    std::vector<Writable> writable = writableOf(columns, leftOut);
    nameColumns(writable);
    std::string statement = "CREATE FOREIGN TABLE " + identifier(names.local) + " (" + FirstColumns;
    for (const Writable &column : writable)
        statement += ", " + definitionOf(column);
    return statement + ") SERVER " + identifier(names.server) + " OPTIONS (indexlist " +
           literal(names.remote) + ")";
}

} // namespace qm::extension
