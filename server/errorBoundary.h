// The border between C++ exceptions and the server's errors, which leave by longjmp and run no destructor.
//
// Two sides. Ordinary code is on the C++ side: it may own objects with destructors, it throws, and it calls
// no server function that can raise. The body given to callServer, and every function whose comment begins
// with "[server side]", is on the other: it may call anything of the server's, owns nothing with a
// destructor and throws nothing. callServer leads from the first side to the second, guardEntry from the
// server into the first.
#pragma once

#include "server/serverApi.h"

#include <exception>
#include <string>
#include <type_traits>
#include <utility>

namespace qm::server
{

// A failure of this module. Becomes an ERROR of the server with its SQLSTATE, text, file and function.
class FdwError : public std::exception
{
public:
    // `sqlState` is an ERRCODE_... value of the server. The place defaults to the caller's.
    FdwError(int sqlState, std::string message, const char *function = __builtin_FUNCTION(),
             const char *file = __builtin_FILE(), int line = __builtin_LINE())
        : sqlState(sqlState), message(std::move(message)), function(function), file(file), line(line)
    {
    }

    // The same error with a detail or a hint, for `throw FdwError(...).detailed(...).hinted(...)`.
    FdwError &&detailed(std::string text) &&
    {
        detail = std::move(text);
        return std::move(*this);
    }
    FdwError &&hinted(std::string text) &&
    {
        hint = std::move(text);
        return std::move(*this);
    }

    const char *what() const noexcept override { return message.c_str(); }

    int sqlState;
    std::string message;
    std::string detail;
    std::string hint;
    const char *function;
    const char *file;
    int line;
};

// An error that the server raised inside callServer, on its way back to the server. The ErrorData lives in
// the memory context that was current at the call; null if there was no memory even for that.
class ServerError : public std::exception
{
public:
    explicit ServerError(ErrorData *data) : data(data) {}
    const char *what() const noexcept override
    {
        return data && data->message ? data->message : "server error";
    }

    ErrorData *const data;
};

namespace boundary
{
using ServerBody = void (*)(void *argument);

// Runs body(argument); turns an error that the server raises in it into a ServerError. The memory context,
// the error context and the exception stack are as before when it throws.
void runServerBody(ServerBody body, void *argument);

// What guardEntry keeps of an exception until every C++ object is gone. Plain data on purpose.
struct PendingError {
    ErrorData *serverError;
    int sqlState;
    char *message;
    char *detail;
    char *hint;
    const char *file;
    const char *function;
    int line;
    bool isServerError;

    // Takes what is needed from the exception being handled; never throws, never raises.
    void capture() noexcept;
    // [server side] Raises it.
    [[noreturn]] void raise();
};
} // namespace boundary

// Runs `body` on the server's side and returns its result (plain data only).
// Throws ServerError where the server raises.
template <typename Body>
auto callServer(Body &&body) -> decltype(body())
{
    using Result = decltype(body());
    using Plain = std::remove_reference_t<Body>;
    static_assert(std::is_trivially_destructible_v<Plain>, "capture by reference: nothing unwinds here");
    if constexpr (std::is_void_v<Result>) {
        // noexcept: an exception must never cross the server's frames; better to stop than to go on.
        boundary::runServerBody([](void *argument) noexcept { (*static_cast<Plain *>(argument))(); },
                                const_cast<std::remove_const_t<Plain> *>(&body));
    } else {
        static_assert(std::is_trivially_destructible_v<Result>);
        Result result{};
        auto keepResult = [&] { result = body(); };
        callServer(keepResult);
        return result;
    }
}

// The frame of every function that the server calls: runs `body`, and raises what it throws as an error of
// the server once no C++ object is alive any more.
template <typename Body>
auto guardEntry(Body &&body) -> decltype(body())
{
    static_assert(std::is_void_v<decltype(body())> || std::is_trivially_destructible_v<decltype(body())>);
    boundary::PendingError pending;
    try {
        return body();
    } catch (...) {
        pending.capture();
    }
    pending.raise();
}

} // namespace qm::server
