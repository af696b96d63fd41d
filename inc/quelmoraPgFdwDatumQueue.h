// A queue of datums in server memory.
#pragma once

#include "quelmoraPgServer.h"

namespace qm::pgFdwElaticSearch
{

// Plain data; all zero is an empty queue. Taking the head costs the same however long the queue is, on every
// server version: a server List is an array from version 13 on, and removing its first cell moves all others.
struct DatumQueue {
    Datum *values;
    int32 capacity;
    int32 count; // entries ever appended
    int32 taken; // of which taken

    bool isEmpty() const { return taken == count; }
    int32 length() const { return count - taken; }

    // Takes the head; the queue must not be empty.
    Datum take() { return values[taken++]; }

    // [server side] Makes room, in the current memory context if there was none yet, for `more` entries.
    void reserve(Size more)
    {
        const Size needed = static_cast<Size>(count) + more;
        if (needed <= static_cast<Size>(capacity))
            return;
        if (needed > INT32_MAX / 2)
            elog(ERROR, "too many documents in one answer");
        const Size size = Max(needed, static_cast<Size>(capacity) * 2) * sizeof(Datum);
        values = static_cast<Datum *>(values ? repalloc_huge(values, size)
                                             : MemoryContextAllocHuge(CurrentMemoryContext, size));
        capacity = static_cast<int32>(size / sizeof(Datum));
    }

    // [server side] Appends an entry at the end.
    void append(Datum value)
    {
        reserve(1);
        values[count++] = value;
    }
};

} // namespace qm::pgFdwElaticSearch
