// A request on its way to a search cluster.
#include "search/sending.h"

#include <algorithm>
#include <new>

namespace qm::search
{
namespace
{

using http::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Between two looks at what has arrived. In so much time a fast network fills no more than the receive
// buffer.
constexpr std::chrono::microseconds BetweenLooks{500};

// Nobody waits for what a look brings: one that takes so long is none of a page.
constexpr seconds LongestLook{1};

constexpr milliseconds FirstPause{100};        // doubled with each retry
constexpr std::int64_t LongestRetryAfter = 60; // seconds

enum Status : long {
    TooManyRequests = 429,
    BadGateway = 502,
    Unavailable = 503,
    GatewayTimeout = 504,
};

// The node itself, or what stands before it, does not do its work; one that is only busy does.
bool isAbsent(const http::Outcome &outcome)
{
    switch (outcome.code) {
    case CURLE_OK:
        return outcome.status == BadGateway || outcome.status == Unavailable ||
               outcome.status == GatewayTimeout;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_FAIL_REWIND:
        return true;
    default:
        return false;
    }
}

// Whether the cluster has not taken the request, or it does no harm when it takes it twice.
bool mayBeRepeated(const http::Outcome &outcome, Purpose purpose)
{
    if (purpose == Purpose::NextPage)
        return false;
    if (outcome.status == 0)
        return outcome.code == CURLE_COULDNT_CONNECT && (!outcome.wasSent || purpose == Purpose::Search);
    return outcome.status == TooManyRequests || outcome.status == Unavailable ||
           (purpose == Purpose::Search && (outcome.status == BadGateway || outcome.status == GatewayTimeout));
}

Statistics costOf(const http::Outcome &outcome)
{
    Statistics cost;
    cost.bytes = outcome.receivedBytes;
    cost.openedConnections = outcome.openedConnections;
    cost.reusedConnections = outcome.wasSent && outcome.openedConnections == 0 ? 1 : 0;
    return cost;
}

http::Request toNode(const Cluster &cluster, std::size_t node, const std::string &path, http::Request request)
{
    request.url = cluster.nodes[node] + path;
    return request;
}

} // namespace

Sending::Sending(std::shared_ptr<ClusterSession> session, http::Request request, Purpose purpose,
                 Receiver &receiver)
    : session(std::move(session)), path(std::move(request.url)), purpose(purpose), receiver(receiver),
      sent(std::move(request))
{
    sent.resend = purpose == Purpose::Search ? http::Resend::Allowed : http::Resend::Forbidden;
    sent.opaqueId = this->session->opaqueId();
    begin();
}

Sending::~Sending() { giveUp(); }

// What has arrived in the meantime may be all, and then its connection can be kept.
void Sending::giveUp() noexcept
{
    if (exchange && !exchange->isDone())
        look();
    if (exchange)
        noteOutcome(exchange->end(CURLE_ABORTED_BY_CALLBACK));
}

// Sends it to the node that is to be asked now.
void Sending::begin()
{
    receiver.begin();
    node = session->nodes.current();
    ++nodesAsked;
    sent = toNode(session->cluster, node, path, std::move(sent));
    exchange.emplace(session->connections, sent, takeBytes, this);
    isNoted = false;
    Statistics part;
    part.requests = 1;
    note(part);
    look();
}

void Sending::advance() noexcept
{
    isUnattended = true;
    if (!exchange->isDone() && Clock::now() - lastLook >= BetweenLooks)
        look();
}

void Sending::look() noexcept
{
    exchange->endBy(Clock::now() + LongestLook);
    try {
        session->connections.advance();
    } catch (const std::bad_alloc &) {
        isOutOfMemory = true;
    }
    lastLook = Clock::now();
}

const http::Outcome &Sending::finish(Clock::time_point latest)
{
    // The time in which nobody waited does not count.
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline =
        std::min(http::deadlineOf(session->cluster.settings.timeoutMs), latest);
    for (;;) {
        const http::Outcome &outcome = http::finish(*exchange, deadline);
        noteOutcome(outcome);
        if (isOutOfMemory)
            throw std::bad_alloc();
        const bool isOver = Clock::now() >= deadline;
        if (isOver || (!goesToNextNode(outcome) && !failedUnseen(outcome) && !triesAgain(outcome, deadline)))
            break;
        begin();
    }
    Statistics part;
    part.waitedMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    note(part);
    return exchange->end(CURLE_OK);
}

void Sending::note(const Statistics &part)
{
    spent.add(part);
    session->spent.add(part);
}

void Sending::noteOutcome(const http::Outcome &outcome)
{
    if (isNoted)
        return;
    isNoted = true;
    session->touch();
    note(costOf(outcome));
    if (isAbsent(outcome))
        session->nodes.passOver(node);
}

bool Sending::goesToNextNode(const http::Outcome &outcome) const
{
    return !outcome.wasSent && isAbsent(outcome) && nodesAsked < session->nodes.count();
}

// While nobody waits, the time to connect in may pass without a fault: such a request is begun anew, once.
bool Sending::failedUnseen(const http::Outcome &outcome)
{
    const bool isUnseen = isUnattended && !outcome.wasSent;
    isUnattended = false;
    return isUnseen;
}

// Waits for the next try, where there is one.
bool Sending::triesAgain(const http::Outcome &outcome, Clock::time_point deadline)
{
    if (retries == session->cluster.retries || !mayBeRepeated(outcome, purpose) ||
        outcome.retryAfter > LongestRetryAfter)
        return false;
    const auto pause = outcome.retryAfter > 0 ? milliseconds(seconds(outcome.retryAfter))
                                              : FirstPause * (1 << std::min(retries, 10));
    if (deadline - Clock::now() <= pause)
        return false;
    http::rest(session->connections, Clock::now() + pause);
    ++retries;
    nodesAsked = 0;
    Statistics part;
    part.retries = 1;
    note(part);
    return true;
}

std::size_t Sending::takeBytes(char *data, std::size_t size, std::size_t count, void *sending)
{
    const std::size_t length = size * count;
    auto *self = static_cast<Sending *>(sending);
    try {
        return self->receiver.take(data, length) ? length : 0;
    } catch (const std::exception &) {
        self->isOutOfMemory = true; // an exception must not cross libcurl's frames
        return 0;
    }
}

void sendBriefly(ClusterSession &session, http::Request request, Clock::time_point end) noexcept
{
    try {
        const std::string path = request.url;
        request.opaqueId = session.opaqueId();
        for (std::size_t asked = 0; asked < session.nodes.count(); ++asked) {
            const std::size_t node = session.nodes.current();
            http::Exchange exchange(session.connections, toNode(session.cluster, node, path, request),
                                    http::dropBody, nullptr);
            http::finishBriefly(exchange, end);
            const http::Outcome &outcome = exchange.end(CURLE_ABORTED_BY_CALLBACK);
            Statistics part = costOf(outcome);
            part.requests = 1;
            session.spent.add(part);
            if (isAbsent(outcome))
                session.nodes.passOver(node);
            if (outcome.wasSent || Clock::now() >= end)
                return;
        }
    } catch (const std::bad_alloc &) {
        // There is no memory for the request.
    }
}

} // namespace qm::search
