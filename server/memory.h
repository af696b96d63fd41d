// Small helpers around the server's memory and relations.
#pragma once

#include "server/errorBoundary.h"

#include <new>

namespace qm::server
{

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

// Puts a copy of `text`, in the current memory context, in the place of `string` (may be null), which is
// freed. Throws ServerError.
inline void replaceString(char *&string, const char *text)
{
    callServer([&] {
        if (string)
            pfree(string);
        string = pstrdup(text);
    });
}

// Makes an object that is destroyed with the memory context; its destructor must not call the server. Throws
// ServerError, and what the constructor throws.
template <typename Object, typename... Arguments>
Object *makeIn(MemoryContext context, Arguments &&...arguments)
{
    auto *callback = callServer([&] {
        return static_cast<MemoryContextCallback *>(
            MemoryContextAllocZero(context, sizeof(MemoryContextCallback)));
    });
    auto *object = new Object(std::forward<Arguments>(arguments)...);
    callback->func = [](void *made) { delete static_cast<Object *>(made); };
    callback->arg = object;
    MemoryContextRegisterResetCallback(context, callback);
    return object;
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

} // namespace qm::server
