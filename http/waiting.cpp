// Waiting for exchanges, in ways that the server can interrupt.
//
// Exchanges are driven step by step instead of by one blocking call, so that the server's signals are served
// between two steps: where nothing of libcurl is on the stack, its errors may be raised.
#include "server/errorBoundary.h"

#include "http/waiting.h"

#include <algorithm>
#include <new>

namespace qm::http
{
namespace
{

using std::chrono::microseconds;
using std::chrono::milliseconds;

// A signal interrupts the waiting at once, unless it arrives just before it begins: this bounds the delay.
constexpr milliseconds LongestWait{200};

constexpr microseconds LongestBriefWork{USECS_PER_SEC};
constexpr microseconds RoomBeforeTimeout{20000};

void serveInterrupts()
{
    if (InterruptPending)
        server::callServer([] { CHECK_FOR_INTERRUPTS(); });
    if (!PostmasterIsAlive())
        server::callServer([] {
            ereport(FATAL, (errcode(ERRCODE_ADMIN_SHUTDOWN),
                            errmsg("terminating connection due to unexpected postmaster exit")));
        });
}

bool mustEnd() { return QueryCancelPending || ProcDiePending; }

// Waits for something to do; false when the time is over.
bool waitUntil(Connections &connections, Clock::time_point end)
{
    const Clock::time_point now = Clock::now();
    if (now >= end)
        return false;
    const auto left =
        end - now > LongestWait ? LongestWait : std::chrono::duration_cast<milliseconds>(end - now);
    connections.wait(static_cast<int>(left.count()) + 1);
    return true;
}

} // namespace

Clock::time_point deadlineOf(std::int32_t timeoutMs)
{
    return timeoutMs > 0 ? Clock::now() + milliseconds(timeoutMs) : Never;
}

const Outcome &finish(Exchange &exchange, Clock::time_point deadline)
{
    exchange.endBy(deadline);
    for (;;) {
        exchange.carrier().advance();
        serveInterrupts();
        if (exchange.isDone())
            break;
        if (!waitUntil(exchange.carrier(), deadline))
            break;
        serveInterrupts();
    }
    return exchange.end(CURLE_OPERATION_TIMEDOUT);
}

void rest(Connections &connections, Clock::time_point until)
{
    do {
        connections.advance();
        serveInterrupts();
    } while (waitUntil(connections, until));
}

Clock::time_point endOfBriefWork()
{
    const TimestampTz now = GetCurrentTimestamp();
    const TimestampTz timeout = get_timeout_start_time(STATEMENT_TIMEOUT) + StatementTimeout * int64{1000};
    const microseconds left = microseconds(timeout - now) - RoomBeforeTimeout;
    return Clock::now() +
           (StatementTimeout > 0 && timeout > now ? std::min(LongestBriefWork, left) : LongestBriefWork);
}

void finishBriefly(Exchange &exchange, Clock::time_point end) noexcept
{
    exchange.endBy(end);
    try {
        while (!mustEnd() && !exchange.isDone()) {
            exchange.carrier().advance();
            if (!exchange.isDone() && !waitUntil(exchange.carrier(), end))
                return;
        }
    } catch (const std::bad_alloc &) {
        // It could not go on.
    }
}

} // namespace qm::http
