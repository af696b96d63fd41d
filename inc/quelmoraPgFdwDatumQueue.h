// A queue of datums in server memory.
#pragma once

#include "quelmoraPgServer.h"

#include <cstring>

namespace qm::pgFdw
{

// Plain data; all zero is an empty queue. Taking the head costs the same however long the queue is, on every
// server version: a server List is an array from version 13 on, and removing its first cell moves all others.
struct DatumQueue {
    Datum *values;
    Size capacity;
    Size count; // entries ever appended
    Size taken; // of which taken

    bool isEmpty() const { return taken == count; }
    int64 length() const { return static_cast<int64>(count - taken); }

    // Takes the head; the queue must not be empty.
    Datum take() { return values[taken++]; }

    // Makes room for `more` entries in what `allocate(bytes)` returns; throws what that throws. The room that
    // there was stays allocated, until the memory that it lies in is freed as a whole.
    template <typename Allocate>
    void reserve(Size more, Allocate &&allocate)
    {
        if (count + more <= capacity)
            return;
        const Size size = Max(count + more, capacity * 2);
        auto *moved = static_cast<Datum *>(allocate(size * sizeof(Datum)));
        if (count != 0)
            std::memcpy(moved, values, count * sizeof(Datum));
        values = moved;
        capacity = size;
    }

    // Appends an entry at the end, for which there must be room.
    void append(Datum value) { values[count++] = value; }
};

} // namespace qm::pgFdw
