// A request on its way to a search cluster.
#pragma once

#include "http/exchange.h"
#include "http/waiting.h"
#include "search/clusterSession.h"
#include "search/statistics.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace qm::search
{

// What a request is for, which decides what may be done when it fails.
enum class Purpose { Search, OpenScroll, NextPage };

// Takes the body of a response while it arrives.
class Receiver
{
public:
    virtual ~Receiver() = default;
    // A response begins, perhaps in place of one that was worth another try.
    virtual void begin() = 0;
    // The next bytes; false to end the exchange. May throw std::bad_alloc.
    virtual bool take(const char *data, std::size_t length) = 0;
};

// Sends a request to a node of the cluster. What certainly was not sent goes to the next node; what the
// cluster cannot do now is tried again after a while, as far as its purpose allows: what opens a scroll is
// never sent again once it may have been taken, and a later page not at all.
class Sending
{
public:
    // Begins. The URL of the request is only what follows that of a node. The receiver must outlive this.
    // Throws std::bad_alloc.
    Sending(std::shared_ptr<ClusterSession> session, http::Request request, Purpose purpose,
            Receiver &receiver);
    ~Sending();
    Sending(const Sending &) = delete;
    Sending &operator=(const Sending &) = delete;

    // Works off what can be done without waiting, unless that was done a moment ago. What fails is told by
    // finish.
    void advance() noexcept;
    // Waits for the response, and tries again where it may, until that moment at the latest. Throws
    // ServerError and std::bad_alloc.
    const http::Outcome &finish(http::Clock::time_point latest = http::Never);

    // Ends the exchange, if it is not done.
    void giveUp() noexcept;

    // The request as it was last sent.
    const http::Request &request() const { return sent; }
    const Statistics &statistics() const { return spent; }

private:
    void begin();
    void look() noexcept;
    void note(const Statistics &part);
    void noteOutcome(const http::Outcome &outcome);
    bool goesToNextNode(const http::Outcome &outcome) const;
    bool failedUnseen(const http::Outcome &outcome);
    bool triesAgain(const http::Outcome &outcome, http::Clock::time_point deadline);
    static std::size_t takeBytes(char *data, std::size_t size, std::size_t count, void *sending);

    const std::shared_ptr<ClusterSession> session;
    const std::string path;
    const Purpose purpose;
    Receiver &receiver;
    http::Request sent;
    Statistics spent;
    std::size_t node = 0;
    std::size_t nodesAsked = 0; // in this try
    std::int32_t retries = 0;   // so far
    bool isOutOfMemory = false;
    bool isNoted = false;
    bool isUnattended = false; // it goes on while nobody waits for it
    http::Clock::time_point lastLook;
    std::optional<http::Exchange> exchange;
};

// Sends a request whose response does not matter to a node that can be reached, and gives it up at the moment
// `end`: see http::finishBriefly.
void sendBriefly(ClusterSession &session, http::Request request, http::Clock::time_point end) noexcept;

} // namespace qm::search
