// A page: the hits of one response on their way to becoming rows.
#pragma once

#include "search/arena.h"
#include "server/serverApi.h"

#include <array>
#include <string_view>
#include <vector>

namespace qm::search
{

// What is kept of a hit.
enum Field { DocId, Content, HitScore, DocumentType, Highlight, FieldCount };

// The hits of one response: a list for each field that was asked for, of which entry i belongs to hit i.
// Filled on the C++ side while the response arrives, without the server's help.
class Hits
{
public:
    // Makes room for so many more values of a field. Throws std::bad_alloc.
    void reserve(Field field, std::size_t values);
    // Copies a value, as a text datum or as a C string, to the end of a field's list. Throws std::bad_alloc.
    void keepText(Field field, std::string_view value);
    void keepCString(Field field, std::string_view value);

    const std::vector<Datum> &listOf(Field field) const { return lists[field]; }
    std::vector<Datum> &listOf(Field field) { return lists[field]; }
    // The bytes that the values take, with what each costs beside its text.
    std::size_t heldBytes() const { return held; }

    // Forgets all hits and keeps the memory for as many others.
    void clear();

private:
    Arena arena;
    std::array<std::vector<Datum>, FieldCount> lists;
    std::size_t held = 0;
};

// The one owner of the hits that are not rows yet: they come in as a whole response and go out one by one.
class Page
{
public:
    // What the server makes of the values lives in a context below `parent`, which must outlive this.
    explicit Page(MemoryContext parent);
    Page(const Page &) = delete;
    Page &operator=(const Page &) = delete;

    // Ends the page and hands out its memory, empty, for the next response to be collected in.
    Hits reset();
    // The hits of a response that was read to its end.
    void accept(Hits &&read);

    bool isEmpty() const { return taken == count; }
    int64 hitCount() const { return static_cast<int64>(count); }
    // The next hit; there must be one.
    void next() { current = taken++; }
    // A field of the hit that is the current one; the field must have been asked for.
    Datum valueOf(Field field) const { return hits.listOf(field)[current]; }

private:
    void convert();

    const MemoryContext converted;
    Hits hits;
    std::size_t count = 0;
    std::size_t taken = 0;
    std::size_t current = 0;
};

} // namespace qm::search
