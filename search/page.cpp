// A page: the hits of one response on their way to becoming rows.
#include "search/page.h"
#include "search/values.h"
#include "server/memory.h"

#include <cstring>

namespace qm::search
{

using server::callServer;
using server::FdwError;

void Hits::reserve(Field field, std::size_t values)
{
    std::vector<Datum> &list = lists[field];
    const std::size_t before = list.capacity();
    list.reserve(list.size() + values);
    held += (list.capacity() - before) * sizeof(Datum);
}

void Hits::keepText(Field field, std::string_view value)
{
    const std::size_t size = VARHDRSZ + value.size();
    auto *copy = static_cast<varlena *>(arena.take(size));
    SET_VARSIZE(copy, size);
    std::memcpy(VARDATA(copy), value.data(), value.size());
    lists[field].push_back(PointerGetDatum(copy));
    held += size + sizeof(Datum);
}

void Hits::keepCString(Field field, std::string_view value)
{
    auto *copy = static_cast<char *>(arena.take(value.size() + 1));
    std::memcpy(copy, value.data(), value.size());
    copy[value.size()] = '\0';
    lists[field].push_back(CStringGetDatum(copy));
    held += value.size() + 1 + sizeof(Datum);
}

void Hits::clear()
{
    for (std::vector<Datum> &list : lists)
        list.clear();
    arena.reset();
    held = 0;
}

namespace
{

// A text of the server ends at a NUL character: better no row than another document's id.
void refuseNulCharacters(const std::vector<Datum> &texts, const char *what)
{
    for (const Datum value : texts) {
        const auto *bytes = reinterpret_cast<const text *>(DatumGetPointer(value));
        if (std::memchr(VARDATA_ANY(bytes), 0, VARSIZE_ANY_EXHDR(bytes)))
            throw FdwError(ERRCODE_FDW_ERROR, std::string("ElasticSearch ") + what + " with a NUL character");
    }
}

// Replaces each entry by what `make` makes of it on the server's side.
void convertEach(std::vector<Datum> &list, Datum (*make)(Datum))
{
    callServer([&] {
        for (Datum &value : list)
            value = make(value);
    });
}

} // namespace

Page::Page(MemoryContext parent)
    : converted(callServer(
          [&] { return AllocSetContextCreate(parent, "Elasticsearch page", ALLOCSET_DEFAULT_SIZES); }))
{
}

Hits Page::reset()
{
    MemoryContextReset(converted);
    count = taken = 0;
    hits.clear();
    return std::move(hits);
}

void Page::accept(Hits &&read)
{
    hits = std::move(read);
    convert();
    count = hits.listOf(DocId).size();
}

// Ids and types become texts in the database's encoding, scores numbers; sources and highlights stay the
// bytes that they are.
void Page::convert()
{
    refuseNulCharacters(hits.listOf(DocId), "document id");
    refuseNulCharacters(hits.listOf(DocumentType), "document type");
    server::MemoryContextScope scope(converted);
    convertEach(hits.listOf(DocId), server::utf8ToServer);
    convertEach(hits.listOf(DocumentType), server::utf8ToServer);
    convertEach(hits.listOf(HitScore), scoreOf);
}

} // namespace qm::search
