// Checks of a foreign table against the mappings and settings of its indices.
#include "server/errorBoundary.h"

#include "extension/remoteIndices.h"
#include "functions/checkMapping.h"
#include "functions/mappedColumn.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace qm::functions
{

using extension::Column;
using extension::Kind;
using extension::MappedField;
using extension::MappedType;
using extension::Mapping;
using extension::RemoteIndices;
using extension::Role;

namespace
{

constexpr const char *Privilege = "index privilege view_index_metadata";
constexpr int UsualWindow = 10000;

void checkPageSize(Report &report, const RemoteIndices &indices, std::int32_t batchSize)
{
    int least = UsualWindow;
    std::string where;
    for (const auto &[name, index] : indices.all()) {
        int window = UsualWindow;
        const std::string &text = index.resultWindow;
        std::from_chars(text.data(), text.data() + text.size(), window);
        if (window < least) {
            least = window;
            where = name;
        }
    }
    if (batchSize > least)
        report.wrong("page size",
                     "The index " + search::quoted(where) + " takes " + std::to_string(least) +
                         " hits a page (index.max_result_window), and \"batchsize\" is " +
                         std::to_string(batchSize) + ".",
                     "Lower the option \"batchsize\" of the foreign table.");
    else
        report.fine("page size", std::to_string(batchSize) + " hits");
}

// What the indices that were looked at so far say of a column.
struct Judged {
    const Column *column;
    std::optional<Finding> finding = {}; // the first
    bool isMapped = false;
    std::string missing = {}; // the first index that does not map the field
};

// What an index says of its fields, by their paths.
class Fields
{
public:
    explicit Fields(const Mapping &mapping)
    {
        for (const MappedField &field : mapping.fields)
            fields.emplace(field.path, &field);
        for (const std::string &parent : mapping.parents)
            objects.emplace(parent, MappedField{parent, "object", Kind::Json, {}, {}});
        for (const extension::ValuelessField &field : mapping.valueless)
            valueless.emplace(field.path, field.type);
    }

    void judge(const std::string &index, Judged &judged) const;

private:
    const MappedField *find(const std::string &path) const;
    bool isWithinJson(const std::string &path) const;

    std::map<std::string, const MappedField *> fields;
    std::map<std::string, MappedField> objects; // whose members are among the fields
    std::map<std::string, std::string> valueless;
};

const MappedField *Fields::find(const std::string &path) const
{
    if (const auto field = fields.find(path); field != fields.end())
        return field->second;
    const auto object = objects.find(path);
    return object == objects.end() ? nullptr : &object->second;
}

// Of nested and flattened objects, and of those that are not indexed, the mapping tells no members.
bool Fields::isWithinJson(const std::string &path) const
{
    for (std::size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.', dot + 1)) {
        const auto outer = fields.find(path.substr(0, dot));
        if (outer != fields.end() && outer->second->kind == Kind::Json)
            return true;
    }
    return false;
}

void Fields::judge(const std::string &index, Judged &judged) const
{
    const std::string &path = judged.column->path;
    const MappedField *field = find(path);
    std::optional<Finding> finding;
    if (field) {
        finding = findDisagreement(*judged.column, *field);
    } else if (const auto other = valueless.find(path); other != valueless.end()) {
        finding = Finding{Verdict::Wrong,
                          "the field " + search::quoted(path) + " is mapped as " +
                              search::quoted(other->second) + ", and documents hold no value of it",
                          "Name another field by the option \"field\" of the column."};
    } else if (!isWithinJson(path)) {
        if (judged.missing.empty())
            judged.missing = index;
        return;
    }
    judged.isMapped = true;
    if (finding && !judged.finding) {
        judged.finding = std::move(finding);
        judged.finding->detail = "In the index " + search::quoted(index) + " " + judged.finding->detail + ".";
    }
}

// Of all indices, after the last.
std::optional<Finding> conclude(Judged &judged)
{
    const std::string path = search::quoted(judged.column->path);
    if (!judged.isMapped)
        return Finding{
            Verdict::Wrong, "No index maps the field " + path + ".",
            "Correct the name of the column or its option \"field\"; a field that is not mapped shows "
            "values, if there are any, and is not searched."};
    if (judged.finding || judged.missing.empty() || judged.column->options.mapped == MappedType::None)
        return std::move(judged.finding);
    return Finding{Verdict::Wrong,
                   "The index " + search::quoted(judged.missing) + " does not map the field " + path +
                       ", and a search by it does not find all rows.",
                   "Drop the option \"search\" of the column, or map the field there before documents come."};
}

void reportColumns(Report &report, std::vector<Judged> &all)
{
    bool isFine = true;
    for (Judged &judged : all)
        if (const std::optional<Finding> finding = conclude(judged)) {
            isFine = false;
            report.add(finding->verdict, nameOf(judged.column->name), finding->detail, finding->hint);
        }
    if (isFine)
        report.fine("mapping",
                    "It agrees with all " + std::to_string(all.size()) + " columns that show fields.");
}

bool showsField(const Column &column) { return column.role == Role::Field || column.role == Role::DocType; }

} // namespace

void checkMapping(Report &report, CheckedNode &node, const extension::TableOptions &options,
                  const Columns &columns)
{
    std::optional<search::Response> mappings =
        lookAt(node, report, "mapping", "/" + options.indices + "/_mapping", Privilege);
    if (!mappings)
        return;
    const std::optional<search::Response> settings =
        lookAt(node, report, "page size", "/" + options.indices + "/_settings?flat_settings=true", Privilege);
    if (!settings)
        return;
    report.survives("mapping", [&] {
        RemoteIndices indices(std::move(*mappings));
        indices.takeSettings(*settings);
        checkPageSize(report, indices, options.batchSize);
        std::vector<Judged> judged;
        for (const Column &column : columns)
            if (showsField(column))
                judged.push_back({&column});
        for (const auto &[name, index] : indices.all()) {
            if (index.isClosed)
                continue;
            const Mapping mapping = indices.mappingOf(index);
            const Fields fields(mapping);
            for (Judged &each : judged)
                fields.judge(name, each);
        }
        reportColumns(report, judged);
    });
}

} // namespace qm::functions
