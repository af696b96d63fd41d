// Small helpers around the server's memory and relations.
#pragma once

#include "quelmoraPgErrorBoundary.h"

#include <cstring>
#include <new>

namespace qm::pgFdw
{

// [server side] Allocates a bytea of `payloadSize` bytes in the current memory context, sets its length word
// and stores it in `destination`; the payload is not initialised. Raises 53200 when there is no memory.
inline void allocateBytea(Size payloadSize, varlena *&destination)
{
    const Size total = payloadSize + VARHDRSZ;
    destination = static_cast<varlena *>(palloc(total));
    if (!destination)
        pgCompat::raiseError(ERRCODE_OUT_OF_MEMORY, nullptr, __FILE__, __LINE__, __func__);
    SET_VARSIZE(destination, total);
}

// Allocates in the context, without the bound of palloc's. Throws std::bad_alloc and raises nothing.
inline void *allocateOrThrow(MemoryContext context, Size size)
{
    void *memory = AllocHugeSizeIsValid(size)
                       ? MemoryContextAllocExtended(context, size, MCXT_ALLOC_HUGE | MCXT_ALLOC_NO_OOM)
                       : nullptr;
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

// Makes `context` current for as long as it lives.
class MemoryContextScope
{
public:
    explicit MemoryContextScope(MemoryContext context) : saved(MemoryContextSwitchTo(context)) {}
    ~MemoryContextScope() { MemoryContextSwitchTo(saved); }
    MemoryContextScope(const MemoryContextScope &) = delete;
    MemoryContextScope &operator=(const MemoryContextScope &) = delete;

private:
    const MemoryContext saved;
};

// Opens a relation with AccessShareLock, runs `use` on its tuple descriptor and closes it. When `use` throws,
// the server closes the relation as it aborts the query.
template <typename Use>
void withTupleDesc(Oid relationId, Use &&use)
{
    const Relation relation = callServer([&] { return heap_open(relationId, AccessShareLock); });
    use(relation->rd_att);
    callServer([&] { relation_close(relation, AccessShareLock); });
}

} // namespace qm::pgFdw
