// One HTTP transfer that the server can interrupt.
//
// The transfer is driven step by step instead of by one blocking call, so that the server's signals are
// served between two steps: where nothing of libcurl is on the stack, its errors may be raised.
#include "quelmoraPgErrorBoundary.h"
#include "quelmoraPgFdwTransfer.h"

#include <csignal>
#include <new>
#include <pthread.h>

namespace qm::pgFdwElaticSearch
{
namespace
{

// A signal interrupts the waiting at once, unless it arrives just before it begins: this bounds the delay.
constexpr int LongestWaitMs = 200;

using MultiHandle = std::unique_ptr<CURLM, CurlDeleter<curl_multi_cleanup>>;

// A cancelled query must not wait for a name that a thread of libcurl's is still being told. Newer versions of
// libcurl ask the multi handle about this, older ones the easy handle.
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

// Takes the easy handle out of the multi handle, as libcurl wants it before either is cleaned up.
class Attachment
{
public:
    Attachment(CURLM *multi, CURL *easy) : multi(multi), easy(easy)
    {
        if (curl_multi_add_handle(multi, easy) != CURLM_OK)
            throw std::bad_alloc();
    }
    ~Attachment() { curl_multi_remove_handle(multi, easy); }
    Attachment(const Attachment &) = delete;
    Attachment &operator=(const Attachment &) = delete;

private:
    CURLM *const multi;
    CURL *const easy;
};

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

// Works off what can be done without waiting; returns whether the transfer still runs.
bool advance(CURLM *multi)
{
    SignalsBlocked blocked;
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK)
        throw std::bad_alloc();
    return running > 0;
}

CURLcode resultOf(CURLM *multi)
{
    int left = 0;
    while (const CURLMsg *message = curl_multi_info_read(multi, &left)) {
        if (message->msg == CURLMSG_DONE)
            return message->data.result;
    }
    return CURLE_FAILED_INIT;
}

} // namespace

CURLcode runTransfer(CURL *easy)
{
    const MultiHandle multi(curl_multi_init());
    if (!multi)
        throw std::bad_alloc();
    leaveResolverBehind(multi.get(), easy);
    const Attachment attachment(multi.get(), easy);
    while (advance(multi.get())) {
        if (InterruptPending)
            qm::pgFdw::callServer([] { CHECK_FOR_INTERRUPTS(); });
        curl_multi_poll(multi.get(), nullptr, 0, LongestWaitMs, nullptr);
        if (InterruptPending)
            qm::pgFdw::callServer([] { CHECK_FOR_INTERRUPTS(); });
    }
    return resultOf(multi.get());
}

} // namespace qm::pgFdwElaticSearch
