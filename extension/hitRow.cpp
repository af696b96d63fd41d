// A row of a foreign table, made of a hit.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonMember.h"
#include "elasticsearch/jsonString.h"
#include "extension/hitRow.h"
#include "search/failure.h"
#include "server/memory.h"

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
      packing{0, {parent, nullptr, 0}}
{
}

void HitRow::setParam(const std::string *text)
{
    hasParam = text != nullptr;
    param = text ? *text : "";
}

RawValue HitRow::rawValue(const HitStream &hits, const Column &column)
{
    switch (column.role) {
    case Role::DocName:
        return {decoded(hits, HitMember::Id, id), true};
    case Role::DocIndex:
        return {decoded(hits, HitMember::Index, index), !hits.member(HitMember::Index).empty()};
    case Role::Score: {
        const std::string_view score = fixedScore.empty() ? hits.member(HitMember::Score) : fixedScore;
        return {score, !score.empty()};
    }
    case Role::DocType: {
        const Scalar found = zq::elasticsearch::topLevelScalar(sourceOf(hits), "type", docType);
        if (found == Scalar::Malformed)
            throwAbout(hits, "the source of a document is no valid JSON object", "");
        return {docType, found == Scalar::There};
    }
    case Role::DocContent:
        return {sourceOf(hits), true};
    case Role::Highlights: {
        const std::string_view highlights = hits.member(HitMember::Highlight);
        return {highlights, !highlights.empty()};
    }
    case Role::Param:
        return {param, hasParam};
    }
    return {};
}

void HitRow::make(const HitStream &hits, int attributes, Datum *values, bool *nulls)
{
    raw.clear();
    for (const Column &column : wanted)
        raw.push_back(rawValue(hits, column));
    MemoryContextReset(context);
    server::MemoryContextScope scope(context);
    callServer([&] {
        std::fill_n(values, attributes, Datum{0});
        std::fill_n(nulls, attributes, true);
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            const search::Value value = makeValue(wanted[i], raw[i], packing);
            values[wanted[i].attribute - 1] = value.datum;
            nulls[wanted[i].attribute - 1] = value.isNull;
        }
    });
}

std::string_view idOf(const HitStream &hits, std::string &target)
{
    return decoded(hits, HitMember::Id, target);
}

} // namespace qm::extension
