// Connections to a server that are kept from one exchange to the next.
#pragma once

#include "http/clock.h"
#include "http/handles.h"
#include "http/settings.h"

#include <vector>

namespace qm::http
{

enum class Reuse { Kept, None };

// What libcurl says of an exchange when it is done.
struct Completion {
    bool isDone = false;
    CURLcode code = CURLE_OK;
};

// The connections that exchanges with the same settings run on, several at a time. Each exchange moves on
// whenever these do. One that has rested for a minute is not used again.
class Connections
{
public:
    // Without reuse each exchange has a connection of its own. Throws std::bad_alloc.
    Connections(Settings settings, Reuse reuse);

    // The exchange of the handle begins; what becomes of it goes into `completion`. Throws std::bad_alloc.
    void add(CURL *easy, Completion &completion);
    // Ends it, if it is not done. To be called before the handle is cleaned up.
    void remove(CURL *easy) noexcept { curl_multi_remove_handle(multi.get(), easy); }

    // Works off what can be done without waiting. Throws std::bad_alloc.
    void advance();
    // For the callbacks of exchanges: whether what is worked off takes long, as when a little that was
    // compressed becomes much, and the deadline has passed, the query is to be cancelled or the server to
    // shut down.
    bool mustStop(Clock::time_point deadline) const;
    // Waits until there is something to do, so many milliseconds at the most, or until a signal arrives.
    void wait(int milliseconds);

    const Settings settings;

private:
    bool isOneBroken() const;
    static curl_socket_t openSocket(void *connections, curlsocktype purpose, curl_sockaddr *address) noexcept;
    static int closeSocket(void *connections, curl_socket_t socket) noexcept;

    const Reuse reuse;
    std::vector<curl_socket_t> sockets; // open ones; there when the last of them is closed
    const MultiHandle multi;
    Clock::time_point stepBegin;
};

} // namespace qm::http
