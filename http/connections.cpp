// Connections to a server that are kept from one exchange to the next.
#include "server/errorBoundary.h"

#include "http/connections.h"

#include <algorithm>
#include <csignal>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qm::http
{
namespace
{

// As many as rest at a time.
constexpr long MostKept = 8;

// Seconds for which a connection may rest: what stands on the way forgets those that rest longer.
constexpr long LongestRest = 60;

// A cancelled query must not wait for a name that a thread of libcurl's is still being told. Newer versions
// of libcurl ask the multi handle about this, older ones the easy handle.
void leaveResolverBehind(CURLM *multi)
{
#if LIBCURL_VERSION_NUM >= 0x081600
    curl_multi_setopt(multi, CURLMOPT_QUICK_EXIT, 1L);
#else
    (void)multi;
#endif
}

// Of a step that nothing interrupts.
constexpr std::chrono::milliseconds LongestStep{100};

sigset_t signalsOfServer()
{
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        sigdelset(&all, fault);
    return all;
}

// Blocks the signals that the server handles, or lets them in. libcurl may start a thread to resolve a name:
// born while they are blocked, it inherits the mask, and the server's handlers never run in it.
class SignalMask
{
public:
    explicit SignalMask(int how)
    {
        const sigset_t signals = signalsOfServer();
        pthread_sigmask(how, &signals, &saved);
    }
    ~SignalMask() { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }
    SignalMask(const SignalMask &) = delete;
    SignalMask &operator=(const SignalMask &) = delete;

private:
    sigset_t saved;
};

} // namespace

Connections::Connections(Settings settings, Reuse reuse)
    : settings(std::move(settings)), reuse(reuse), multi(curl_multi_init())
{
    if (!multi)
        throw std::bad_alloc();
    leaveResolverBehind(multi.get());
    curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, MostKept);
}

void Connections::add(CURL *easy, Completion &completion)
{
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &completion);
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, LongestRest);
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, reuse == Reuse::None ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, closeSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
    // libcurl looks as well, but newer versions no more than once a second.
    curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, isOneBroken() ? 1L : 0L);
    if (curl_multi_add_handle(multi.get(), easy) != CURLM_OK)
        throw std::bad_alloc();
}

// Whether the other side has closed a connection, which a request must not go out on.
bool Connections::isOneBroken() const
{
    return std::any_of(
        sockets.begin(), sockets.end(),
        [](curl_socket_t socket) {
            pollfd asked = {socket, POLLRDHUP, 0};
            return poll(&asked, 1, 0) > 0;
        });
}

curl_socket_t Connections::openSocket(void *connections, curlsocktype, curl_sockaddr *address) noexcept
{
    const curl_socket_t made = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (made == CURL_SOCKET_BAD)
        return made;
    try {
        static_cast<Connections *>(connections)->sockets.push_back(made);
        return made;
    } catch (const std::bad_alloc &) {
        close(made);
        return CURL_SOCKET_BAD;
    }
}

int Connections::closeSocket(void *connections, curl_socket_t socket) noexcept
{
    auto &sockets = static_cast<Connections *>(connections)->sockets;
    sockets.erase(std::remove(sockets.begin(), sockets.end(), socket), sockets.end());
    return close(socket);
}

void Connections::advance()
{
    const SignalMask blocked(SIG_BLOCK);
    stepBegin = Clock::now();
    int count = 0;
    if (curl_multi_perform(multi.get(), &count) != CURLM_OK)
        throw std::bad_alloc();
    while (const CURLMsg *message = curl_multi_info_read(multi.get(), &count)) {
        char *completion = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &completion);
        *reinterpret_cast<Completion *>(completion) = {true, message->data.result};
    }
}

// The server's handlers only take notice, wherever they run.
bool Connections::mustStop(Clock::time_point deadline) const
{
    const Clock::time_point now = Clock::now();
    if (now - stepBegin < LongestStep)
        return false;
    const SignalMask letIn(SIG_UNBLOCK);
    return now >= deadline || QueryCancelPending || ProcDiePending;
}

void Connections::wait(int milliseconds)
{
    pgstat_report_wait_start(PG_WAIT_EXTENSION);
    curl_multi_poll(multi.get(), nullptr, 0, milliseconds, nullptr);
    pgstat_report_wait_end();
}

} // namespace qm::http
