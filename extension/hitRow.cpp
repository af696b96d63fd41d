// A row of a foreign table, made of a hit.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonMember.h"
#include "elasticsearch/jsonString.h"
#include "extension/hitRow.h"
#include "search/failure.h"
#include "server/memory.h"

#include <algorithm>

namespace qm::extension
{

using search::HitStream;
using server::callServer;
using server::FdwError;
using zq::elasticsearch::HitMember;
using zq::elasticsearch::Scalar;

namespace
{

std::string_view decoded(const HitStream &hits, HitMember member, std::string &target)
{
    if (!zq::elasticsearch::decodeJsonText(hits.member(member), target))
        throw FdwError(ERRCODE_CHARACTER_NOT_IN_REPERTOIRE,
                       "an id or the name of an index is not valid Unicode")
            .detailed(search::quoted(hits.member(member)));
    return target;
}

// The most of a value that an error shows.
constexpr std::size_t MostShown = 200;

constexpr const char *NoObject = "the source of a document is no valid JSON object";

[[noreturn]] void throwAbout(const HitStream &hits, const char *message, const char *hint)
{
    throw FdwError(ERRCODE_FDW_ERROR, message)
        .detailed("Index " + search::quoted(hits.member(HitMember::Index)) + ", id " +
                  search::quoted(hits.member(HitMember::Id)) + ".")
        .hinted(hint);
}

std::string_view sourceOf(const HitStream &hits)
{
    const std::string_view source = hits.member(HitMember::Source);
    if (source.empty())
        throwAbout(hits, "a document comes without its source",
                   "The mapping of the index may have \"_source\" switched off.");
    return source;
}

} // namespace

HitRow::HitRow(std::vector<Column> columns, MemoryContext parent)
    : wanted(std::move(columns)), context(callServer([&] {
          return AllocSetContextCreate(parent, "Elasticsearch row", ALLOCSET_DEFAULT_SIZES);
      })),
      packing{0, {parent, nullptr, 0}, 0}, raw(wanted.size())
{
    for (std::size_t place = 0; place < wanted.size(); ++place)
        if (wanted[place].role == Role::Field)
            fieldColumns.push_back(place);
    found.resize(fieldColumns.size());
}

void HitRow::setParam(const std::string *text)
{
    hasParam = text != nullptr;
    param = text ? *text : "";
}

void HitRow::readMember(const HitStream &hits, const Column &column, RawValue &target)
{
    switch (column.role) {
    case Role::DocName:
        target.utf8 = decoded(hits, HitMember::Id, id);
        target.isThere = true;
        break;
    case Role::DocIndex:
        target.utf8 = decoded(hits, HitMember::Index, index);
        target.isThere = !hits.member(HitMember::Index).empty();
        break;
    case Role::Score:
        target.utf8 = fixedScore.empty() ? hits.member(HitMember::Score) : fixedScore;
        target.isThere = !target.utf8.empty();
        break;
    case Role::DocType: {
        const Scalar type = zq::elasticsearch::topLevelScalar(sourceOf(hits), "type", docType);
        if (type == Scalar::Malformed)
            throwAbout(hits, NoObject, "");
        target.utf8 = docType;
        target.isThere = type == Scalar::There;
        break;
    }
    case Role::DocContent:
        target.utf8 = sourceOf(hits);
        target.isThere = true;
        break;
    case Role::Highlights:
        target.utf8 = hits.member(HitMember::Highlight);
        target.isThere = !target.utf8.empty();
        break;
    case Role::Param:
        target.utf8 = param;
        target.isThere = hasParam;
        break;
    case Role::Field:
        break;
    }
}

void HitRow::readFields(const HitStream &hits)
{
    if (fieldColumns.empty())
        return;
    if (sourceOf(hits).front() != '{')
        throwAbout(hits, NoObject, "");
    for (std::vector<std::string_view> &values : found)
        values.clear();
    for (std::size_t i = 0; i < hits.fieldCount(); ++i) {
        const auto field = hits.field(i);
        found[field.path].push_back(field.value);
    }
    fields.clear();
    for (std::size_t i = 0; i < fieldColumns.size(); ++i)
        fields.read(wanted[fieldColumns[i]], found[i], raw[fieldColumns[i]].field);
}

// A value that does not fit its column becomes NULL, where that is wanted.
void HitRow::dropBadValue(const HitStream &hits, std::size_t place, const std::string &reason)
{
    const Column &column = wanted[place];
    raw[place].field.problem = nullptr;
    raw[place].field.isMissing = true;
    if (nullsBadValues)
        return;
    const auto number = std::find(fieldColumns.begin(), fieldColumns.end(), place) - fieldColumns.begin();
    std::string values;
    for (const std::string_view value : found[static_cast<std::size_t>(number)])
        values.append(values.empty() ? "" : ", ")
            .append(value.substr(0, MostShown - std::min(MostShown, values.size())));
    const std::string type = callServer([&] { return format_type_be(column.type); });
    throw FdwError(ERRCODE_DATA_EXCEPTION, "a value of the field \"" + search::quoted(column.path) +
                                               "\" does not fit the column \"" + column.name + "\" of type " +
                                               type)
        .detailed("Index " + search::quoted(hits.member(HitMember::Index)) + ", id " +
                  search::quoted(hits.member(HitMember::Id)) + ", value " + search::quoted(values) + ": " +
                  reason + ".")
        .hinted("Another type of the column may take it; the option \"badvalues\" of the foreign table can "
                "make NULL "
                "of such values.");
}

// Makes what it can in one go, and begins again behind a value that does not fit.
void HitRow::makeValues(const HitStream &hits, Datum *values, bool *nulls)
{
    std::size_t next = 0;
    while (next < wanted.size()) {
        try {
            callServer([&] {
                for (; next < wanted.size() && !raw[next].field.problem; ++next) {
                    const search::Value value = makeValue(wanted[next], raw[next], packing);
                    values[wanted[next].attribute - 1] = value.datum;
                    nulls[wanted[next].attribute - 1] = value.isNull;
                }
            });
            if (next < wanted.size())
                dropBadValue(hits, next, raw[next].field.problem);
        } catch (const server::ServerError &error) {
            // Errors of this class come from the input functions of built-in types, which leave nothing
            // behind.
            const bool isBadValue = wanted[next].role == Role::Field && error.data &&
                                    ERRCODE_TO_CATEGORY(error.data->sqlerrcode) == ERRCODE_DATA_EXCEPTION;
            if (!isBadValue)
                throw;
            dropBadValue(hits, next, error.what());
        }
    }
}

void HitRow::make(const HitStream &hits, int attributes, Datum *values, bool *nulls)
{
    for (std::size_t place = 0; place < wanted.size(); ++place)
        readMember(hits, wanted[place], raw[place]);
    readFields(hits);
    MemoryContextReset(context);
    server::MemoryContextScope scope(context);
    std::fill_n(values, attributes, Datum{0});
    std::fill_n(nulls, attributes, true);
    makeValues(hits, values, nulls);
}

std::string_view idOf(const HitStream &hits, std::string &target)
{
    return decoded(hits, HitMember::Id, target);
}

std::string_view indexOf(const HitStream &hits, std::string &target)
{
    return decoded(hits, HitMember::Index, target);
}

} // namespace qm::extension
