// What the mapping of an index says of its fields.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "extension/mappedTypes.h"
#include "extension/mapping.h"

#include <algorithm>

namespace qm::extension
{

using server::FdwError;
using zq::elasticsearch::forEachMember;
using zq::elasticsearch::JsonCursor;
using zq::elasticsearch::takeText;

namespace
{

// Beyond what a cluster takes (20 levels, 1000 fields, unless it is told otherwise).
constexpr int MostLevels = 100;
constexpr std::size_t MostFields = 100000;

// Reads a member of the definition of a field; false when it is none that matters.
bool readParameter(Definition &definition, std::string_view name, JsonCursor &cursor)
{
    struct Text {
        std::string_view name;
        std::string Definition::*target;
    };
    constexpr Text Texts[] = {{"type", &Definition::type},
                              {"format", &Definition::format},
                              {"index", &Definition::index},
                              {"enabled", &Definition::enabled},
                              {"ignore_above", &Definition::ignoreAbove},
                              {"ignore_malformed", &Definition::ignoreMalformed},
                              {"scaling_factor", &Definition::scalingFactor}};
    for (const Text &text : Texts)
        if (name == text.name) {
            definition.*text.target = takeText(cursor);
            return true;
        }
    for (const std::string_view altering : {"null_value", "normalizer", "script", "locale"})
        if (name == altering)
            definition.isAltered = true;
    return false;
}

// The definition of a field, and where its members and its sub-fields are: what is to be done with them is
// known only when all is read.
struct Read {
    Definition definition;
    std::optional<JsonCursor> properties;
    std::optional<JsonCursor> parts;
};

Read readDefinition(JsonCursor &cursor)
{
    Read read;
    forEachMember(cursor, [&](std::string_view name) {
        const JsonCursor value = cursor;
        if (name == "properties")
            read.properties = value;
        else if (name == "fields")
            read.parts = value;
        if (!readParameter(read.definition, name, cursor))
            cursor.value();
    });
    return read;
}

// The sub-field that is searched in place of a field that is found by words.
std::optional<Searchable> usualOf(const std::vector<Searchable> &parts, const std::string &path)
{
    if (parts.empty())
        return std::nullopt;
    const auto usual = std::find_if(parts.begin(), parts.end(),
                                    [&](const Searchable &part) { return part.field == path + ".keyword"; });
    return usual == parts.end() ? parts.front() : *usual;
}

// Reads the properties of objects, one in another.
class MappingReader
{
public:
    MappingReader(Mapping &mapping, const MappingDefaults &defaults) : mapping(mapping), defaults(defaults) {}

    void readRoot(JsonCursor &cursor);
    // What the search would find by a name that the mapping's own field has, too.
    void leaveOutShadowed();

private:
    void readProperties(JsonCursor &cursor, const std::string &parent, int level);
    void readField(JsonCursor &cursor, const std::string &path, int level);
    void readRuntime(JsonCursor &cursor);
    std::vector<Searchable> partsOf(const Read &read, const std::string &path) const;

    Mapping &mapping;
    const MappingDefaults &defaults;
    std::vector<std::string> runtime;
};

// In version 6 each member that is none of a mapping's own is that of a type.
void MappingReader::readRoot(JsonCursor &cursor)
{
    forEachMember(
        cursor,
        [&](std::string_view name) {
            if (cursor.peek() != '{' || (!name.empty() && name.front() == '_' && name != "_doc"))
                cursor.value();
            else if (name == "properties")
                readProperties(cursor, "", 1);
            else if (name == "runtime")
                readRuntime(cursor);
            else if (Read type = readDefinition(cursor); type.properties)
                readProperties(*type.properties, "", 1);
        });
}

void MappingReader::readProperties(JsonCursor &cursor, const std::string &parent, int level)
{
    if (level > MostLevels)
        throw FdwError(ERRCODE_FDW_ERROR, "the mapping of an index is nested too deeply")
            .detailed("It has more than " + std::to_string(MostLevels) + " levels.");
    forEachMember(cursor, [&](std::string_view name) {
        server::callServer([] { CHECK_FOR_INTERRUPTS(); });
        checkFieldCount(mapping.fields.size() + mapping.parents.size() + mapping.valueless.size());
        readField(cursor, parent.empty() ? std::string(name) : parent + "." + std::string(name), level);
    });
}

void MappingReader::readField(JsonCursor &cursor, const std::string &path, int level)
{
    Read read = readDefinition(cursor);
    const Definition &definition = read.definition;
    if (read.properties && definition.isObject()) {
        mapping.parents.push_back(path);
        readProperties(*read.properties, path, level + 1);
    } else if (definition.hasNoValue()) {
        mapping.valueless.push_back({path, definition.type});
    } else {
        std::vector<Searchable> parts = partsOf(read, path);
        mapping.fields.push_back(
            {path, definition.type, kindOf(definition),
             definition.isFullText() ? usualOf(parts, path) : searchableOf(definition, defaults),
             std::move(parts)});
    }
}

void MappingReader::readRuntime(JsonCursor &cursor)
{
    forEachMember(
        cursor,
        [&](std::string_view name) {
            checkFieldCount(runtime.size());
            const std::string path(name);
            mapping.valueless.push_back({path, "runtime " + readDefinition(cursor).definition.type});
            runtime.push_back(path);
        });
}

std::vector<Searchable> MappingReader::partsOf(const Read &read, const std::string &path) const
{
    std::vector<Searchable> found;
    if (!read.parts)
        return found;
    JsonCursor cursor = *read.parts;
    forEachMember(cursor, [&](std::string_view name) {
        const std::string partPath = path + "." + std::string(name);
        std::optional<Searchable> part = searchableOf(readDefinition(cursor).definition, defaults);
        if (!part || part->type != "keyword")
            return;
        part->field = partPath;
        found.push_back(*part);
    });
    return found;
}

void MappingReader::leaveOutShadowed()
{
    std::sort(runtime.begin(), runtime.end());
    const auto isShadowed = [&](const std::string &path) {
        // A runtime field may have members of its own.
        for (std::size_t end = path.find('.');; end = path.find('.', end + 1)) {
            if (std::binary_search(runtime.begin(), runtime.end(), path.substr(0, end)))
                return true;
            if (end == std::string::npos)
                return false;
        }
    };
    for (MappedField &field : mapping.fields) {
        if (field.searchable &&
            isShadowed(field.searchable->field.empty() ? field.path : field.searchable->field))
            field.searchable.reset();
        const auto end = std::remove_if(field.parts.begin(), field.parts.end(),
                                        [&](const Searchable &part) { return isShadowed(part.field); });
        field.parts.erase(end, field.parts.end());
    }
}

} // namespace

bool Searchable::operator==(const Searchable &other) const
{
    return type == other.type && field == other.field && ignoreAbove == other.ignoreAbove &&
           scalingFactor == other.scalingFactor && format == other.format;
}

void checkFieldCount(std::size_t count)
{
    if (count > MostFields)
        throw FdwError(ERRCODE_FDW_ERROR, "the mapping of an index has too many fields")
            .detailed("There are more than " + std::to_string(MostFields) + ".");
}

Mapping readMapping(std::string_view text, const MappingDefaults &defaults)
{
    Mapping mapping;
    MappingReader reader(mapping, defaults);
    zq::elasticsearch::readJson(text, [&](JsonCursor &cursor) { reader.readRoot(cursor); });
    reader.leaveOutShadowed();
    return mapping;
}

} // namespace qm::extension
