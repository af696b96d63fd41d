// The border between C++ exceptions and the server's errors.
#include "server/errorBoundary.h"

#include "server/encoding.h"

#include <cstring>
#include <new>

namespace qm::server
{
namespace
{

// Copies the error that was just caught and empties the server's error stack. Null if even that fails for
// want of memory.
ErrorData *takeErrorData()
{
    ErrorData *volatile copy = nullptr;
    PG_TRY();
    {
        copy = CopyErrorData();
    }
    PG_CATCH();
    {
        copy = nullptr;
    }
    PG_END_TRY();
    FlushErrorState();
    return copy;
}

// A copy of `text` in the current memory context, or null: raises nothing.
char *copyWithoutRaising(const char *text) noexcept
{
    const size_t size = std::strlen(text) + 1;
    void *copy = MemoryContextAllocExtended(CurrentMemoryContext, size, MCXT_ALLOC_NO_OOM | MCXT_ALLOC_HUGE);
    if (copy)
        std::memcpy(copy, text, size);
    return static_cast<char *>(copy);
}

} // namespace

namespace boundary
{

void runServerBody(ServerBody body, void *argument)
{
    const MemoryContext callersContext = CurrentMemoryContext;
    volatile bool raised = false;
    ErrorData *volatile error = nullptr;
    PG_TRY();
    {
        body(argument);
    }
    PG_CATCH();
    {
        MemoryContextSwitchTo(callersContext);
        error = takeErrorData();
        raised = true;
    }
    PG_END_TRY();
    if (raised)
        throw ServerError(error);
}

void PendingError::capture() noexcept
{
    *this = {};
    sqlState = ERRCODE_INTERNAL_ERROR;
    file = __FILE__;
    function = __func__;
    line = __LINE__;
    try {
        throw;
    } catch (const ServerError &error) {
        serverError = error.data;
        isServerError = true;
    } catch (const FdwError &error) {
        sqlState = error.sqlState;
        message = copyWithoutRaising(error.what());
        detail = error.detail.empty() ? nullptr : copyWithoutRaising(error.detail.c_str());
        hint = error.hint.empty() ? nullptr : copyWithoutRaising(error.hint.c_str());
        file = error.file;
        function = error.function;
        line = error.line;
    } catch (const std::bad_alloc &) {
        sqlState = ERRCODE_OUT_OF_MEMORY;
        message = copyWithoutRaising("out of memory");
    } catch (const std::exception &error) {
        message = copyWithoutRaising(error.what());
    } catch (...) {
        message = copyWithoutRaising("unknown exception");
    }
}

void PendingError::raise()
{
    if (isServerError && serverError)
        ReThrowError(serverError);
    if (isServerError)
        raiseError(ERRCODE_OUT_OF_MEMORY, {"out of memory", nullptr, nullptr}, file, line, function);
    for (char *text : {message, detail, hint})
        if (text)
            replaceInvalidBytes(text);
    raiseError(sqlState, {message, detail, hint}, file, line, function);
}

} // namespace boundary
} // namespace qm::server
