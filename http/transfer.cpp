// One HTTP transfer that the server can interrupt.
//
// The transfer is driven step by step instead of by one blocking call, so that the server's signals are
// served between two steps: where nothing of libcurl is on the stack, its errors may be raised.
#include "server/errorBoundary.h"

#include "http/handles.h"
#include "http/transfer.h"

#include <csignal>
#include <new>
#include <pthread.h>

namespace qm::http
{
namespace
{

// A signal interrupts the waiting at once, unless it arrives just before it begins: this bounds the delay.
constexpr int LongestWaitMs = 200;

// In microseconds.
constexpr int64 LongestBriefWork = USECS_PER_SEC;
constexpr int64 RoomBeforeTimeout = 20000;

// A cancelled query must not wait for a name that a thread of libcurl's is still being told. Newer versions
// of libcurl ask the multi handle about this, older ones the easy handle.
void leaveResolverBehind(CURLM *multi, CURL *easy)
{
#if LIBCURL_VERSION_NUM >= 0x081600
    curl_multi_setopt(multi, CURLMOPT_QUICK_EXIT, 1L);
#else
    (void)multi;
#endif
#if LIBCURL_VERSION_NUM >= 0x075700
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#else
    (void)easy;
#endif
}

// Blocks the signals that the server handles. libcurl may start a thread to resolve a name: born while this
// lives, it inherits the mask, and the server's handlers never run in it.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
            sigdelset(&all, fault);
        pthread_sigmask(SIG_BLOCK, &all, &saved);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t saved;
};

// One transfer under way: ended when this goes, whatever its state.
class Transfer
{
public:
    explicit Transfer(CURL *easy) : multi(curl_multi_init()), easy(easy)
    {
        if (!multi)
            throw std::bad_alloc();
        leaveResolverBehind(multi.get(), easy);
        if (curl_multi_add_handle(multi.get(), easy) != CURLM_OK)
            throw std::bad_alloc();
    }
    // libcurl wants the easy handle taken out of the multi handle before either is cleaned up.
    ~Transfer() { curl_multi_remove_handle(multi.get(), easy); }
    Transfer(const Transfer &) = delete;
    Transfer &operator=(const Transfer &) = delete;

    // Works off what can be done without waiting; returns whether the transfer still runs.
    bool advance()
    {
        SignalsBlocked blocked;
        int running = 0;
        if (curl_multi_perform(multi.get(), &running) != CURLM_OK)
            throw std::bad_alloc();
        return running > 0;
    }

    void wait(int milliseconds)
    {
        pgstat_report_wait_start(PG_WAIT_EXTENSION);
        curl_multi_poll(multi.get(), nullptr, 0, milliseconds, nullptr);
        pgstat_report_wait_end();
    }

    CURLcode result()
    {
        int left = 0;
        while (const CURLMsg *message = curl_multi_info_read(multi.get(), &left))
            if (message->msg == CURLMSG_DONE)
                return message->data.result;
        return CURLE_FAILED_INIT;
    }

private:
    const MultiHandle multi;
    CURL *const easy;
};

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

} // namespace

CURLcode runTransfer(CURL *easy)
{
    Transfer transfer(easy);
    while (transfer.advance()) {
        serveInterrupts();
        transfer.wait(LongestWaitMs);
        serveInterrupts();
    }
    return transfer.result();
}

std::int64_t endOfBriefWork()
{
    const TimestampTz now = GetCurrentTimestamp();
    const TimestampTz timeout = get_timeout_start_time(STATEMENT_TIMEOUT) + StatementTimeout * int64{1000};
    const TimestampTz end = now + LongestBriefWork;
    return StatementTimeout > 0 && timeout > now ? Min(end, timeout - RoomBeforeTimeout) : end;
}

void runBriefTransfer(CURL *easy, std::int64_t end)
{
    try {
        Transfer transfer(easy);
        while (!mustEnd() && transfer.advance()) {
            const int64 left = (end - GetCurrentTimestamp()) / 1000;
            if (left <= 0)
                return;
            transfer.wait(static_cast<int>(Min(left, LongestWaitMs)));
        }
    } catch (const std::bad_alloc &) {
        // It could not even begin.
    }
}

} // namespace qm::http
