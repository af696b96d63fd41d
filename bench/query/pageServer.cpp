// A search server that is never the bottleneck: it responds to searches and scrolls with bytes at hand.
//
//   pageServer [MICROSECONDS]      keeps a response back for so long for each document in it, as a cluster
//   does
//
// It listens on a free port of 127.0.0.1, prints it, and ends when its standard input, a pipe, is closed.
#include "responses.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <set>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace veltrane::bench
{
namespace
{

using Clock = std::chrono::steady_clock;

int checked(int outcome, const char *what)
{
    if (outcome < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return outcome;
}

struct Request {
    std::string_view method, target, body;
};

// What goes out: an HTTP head with the first bytes of the body, and the rest, which lives elsewhere.
struct Response {
    std::string head;
    std::string_view rest;
    std::uint64_t documents = 0;
    std::size_t sent = 0;
};

std::string_view between(std::string_view text, std::string_view before, char end)
{
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + before.size());
    return text.substr(0, text.find(end));
}

std::uint64_t sizeIn(std::string_view body)
{
    const std::string_view member = "\"size\":";
    const std::size_t at = body.rfind(member);
    return at == std::string_view::npos ? 10 : std::stoull(std::string(body.substr(at + member.size(), 20)));
}

bool isLookUp(std::string_view body)
{
    return body.find(R"({"terms":{"_id":)") != std::string_view::npos ||
           body.find(R"({"ids":)") != std::string_view::npos;
}

Response respond(const char *status, const std::string &start, std::string_view rest = {},
                 std::uint64_t documents = 0)
{
    Response response;
    response.documents = documents;
    response.head = std::string("HTTP/1.1 ") + status + "\r\ncontent-type: application/json; charset=UTF-8" +
                    "\r\ncontent-length: " + std::to_string(start.size() + rest.size()) + "\r\n\r\n" + start;
    response.rest = rest;
    return response;
}

Response scrollPage(Responses &responses, const ScrollPosition &position)
{
    const Page page = responses.page(position);
    const ScrollPosition next{position.search, position.offset + position.search.size};
    return respond("200 OK", std::string(page.beforeId) + idOf(next), page.afterId,
                   std::min(position.search.size, position.search.total));
}

Response respondTo(const Request &request, Responses &responses)
{
    if (request.target.rfind("/_search/scroll", 0) == 0) {
        if (request.method == "DELETE")
            return respond("200 OK", R"({"succeeded":true,"num_freed":1})");
        const std::string_view inTarget = between(request.target, "scroll_id=", '&');
        return scrollPage(
            responses,
            positionOf(inTarget.empty() ? between(request.body, R"("scroll_id":")", '"') : inTarget));
    }
    const std::string_view index = between(request.target, "/", '/');
    if (request.target.find("/_search") == std::string_view::npos)
        throw std::invalid_argument("nothing but searches");
    Search search = searchOf(index, sizeIn(request.body));
    if (request.target.find("scroll=") != std::string_view::npos)
        return scrollPage(responses, {search, 0});
    if (isLookUp(request.body))
        search.total = 1;
    return respond("200 OK", "", responses.only(search), std::min(search.size, search.total));
}

// What a response is made with.
struct Workshop {
    Responses responses;
    const Clock::duration ofDocument; // for which a response is kept back
};

class Connection
{
public:
    enum class Awaits { Request, Time, Room };

    explicit Connection(int socket) : socket(socket) {}
    ~Connection()
    {
        // The peer has closed: with a reset its port is free again at once, else thousands of short
        // connections would use up all ports.
        const linger reset{1, 0};
        setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(socket);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    Awaits awaits() const { return !pending() ? Awaits::Request : keptBack ? Awaits::Time : Awaits::Room; }
    // When a response that is kept back goes out.
    Clock::time_point due() const { return dueTime; }

    // Reads or writes what can be now; returns whether the connection lives on.
    bool serve(Workshop &workshop)
    {
        switch (awaits()) {
        case Awaits::Request:
            return receive(workshop);
        case Awaits::Time:
            return false; // the peer has gone
        default:
            return sendOn();
        }
    }
    // The same when what it waits for is the time.
    bool sendWhatIsDue()
    {
        keptBack = false;
        return sendOn();
    }

private:
    bool pending() const { return response.sent < response.head.size() + response.rest.size(); }

    bool receive(Workshop &workshop)
    {
        char buffer[16384];
        const ssize_t count = recv(socket, buffer, sizeof buffer, 0);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        input.append(buffer, static_cast<std::size_t>(count));
        return count > 0 && respondIfWhole(workshop);
    }

    // Responds to the request if all of it has arrived.
    bool respondIfWhole(Workshop &workshop)
    {
        const std::string_view end = "\r\n\r\n";
        const std::size_t headSize = input.find(end);
        if (headSize == std::string::npos)
            return true;
        const std::size_t length = contentLength(std::string_view(input).substr(0, headSize));
        const std::size_t size = headSize + end.size() + length;
        if (input.size() < size)
            return true;
        const std::string_view whole = input;
        const std::size_t methodEnd = whole.find(' ');
        const Request request{whole.substr(0, methodEnd), between(whole, " ", ' '),
                              whole.substr(headSize + end.size(), length)};
        try {
            response = respondTo(request, workshop.responses);
        } catch (const std::logic_error &error) {
            response = respond("400 Bad Request", std::string(R"({"error":")") + error.what() + "\"}");
        }
        input.erase(0, size);
        const Clock::duration delay = response.documents * workshop.ofDocument;
        if (delay == Clock::duration::zero())
            return sendOn();
        dueTime = Clock::now() + delay;
        keptBack = true;
        return true;
    }

    static std::size_t contentLength(std::string_view head)
    {
        const std::string_view name = "\r\ncontent-length:";
        const auto same = [](char one, char other) { return std::tolower(one) == other; };
        const auto *const at = std::search(head.begin(), head.end(), name.begin(), name.end(), same);
        return at == head.end() ? 0 : std::stoull(std::string(at + name.size(), head.end()));
    }

    bool sendOn()
    {
        while (pending()) {
            const std::size_t headLeft = response.head.size() - std::min(response.sent, response.head.size());
            const std::size_t restLeft =
                response.head.size() + response.rest.size() - response.sent - headLeft;
            iovec parts[2] = {
                {response.head.data() + response.head.size() - headLeft, headLeft},
                {const_cast<char *>(response.rest.data()) + response.rest.size() - restLeft, restLeft}};
            msghdr message{};
            message.msg_iov = parts;
            message.msg_iovlen = 2;
            const ssize_t count = sendmsg(socket, &message, MSG_NOSIGNAL);
            if (count < 0)
                return errno == EAGAIN || errno == EINTR;
            response.sent += static_cast<std::size_t>(count);
        }
        return true;
    }

    const int socket;
    std::string input;
    Response response;
    bool keptBack = false;
    Clock::time_point dueTime;
};

// A descriptor that can be read when the earliest of many times has come. It holds for steady_clock, which is
// the kernel's monotonic clock.
class Alarm
{
public:
    Alarm() : timer(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd")) {}
    ~Alarm() { close(timer); }
    Alarm(const Alarm &) = delete;
    Alarm &operator=(const Alarm &) = delete;

    int descriptor() const { return timer; }

    void add(Clock::time_point time, int socket)
    {
        times.emplace(time, socket);
        set();
    }
    void remove(Clock::time_point time, int socket) { times.erase({time, socket}); }

    // A socket whose time has come, or -1; it is removed.
    int takeDue()
    {
        if (times.empty() || times.begin()->first > Clock::now()) {
            set();
            return -1;
        }
        const int socket = times.begin()->second;
        times.erase(times.begin());
        return socket;
    }

private:
    // For the earliest time that is left. Setting a timer also makes it unreadable.
    void set() const
    {
        using namespace std::chrono;
        itimerspec when{}; // none
        if (!times.empty()) {
            const auto time = duration_cast<nanoseconds>(times.begin()->first.time_since_epoch()).count();
            when.it_value = {time / 1'000'000'000, time % 1'000'000'000};
        }
        checked(timerfd_settime(timer, TFD_TIMER_ABSTIME, &when, nullptr), "timerfd_settime");
    }

    const int timer;
    std::set<std::pair<Clock::time_point, int>> times;
};

class PageServer
{
public:
    explicit PageServer(Clock::duration ofDocument)
        : epoll(checked(epoll_create1(0), "epoll")), listener(listen()), workshop{{}, ofDocument}
    {
    }

    void run()
    {
        for (const int descriptor : {STDIN_FILENO, listener, alarm.descriptor()})
            watch(EPOLL_CTL_ADD, descriptor, EPOLLIN);
        for (;;) {
            epoll_event events[64];
            const int count = epoll_wait(epoll, events, 64, -1);
            for (int number = 0; number < count; ++number) {
                const int descriptor = events[number].data.fd;
                if (descriptor == STDIN_FILENO)
                    return;
                if (descriptor == listener)
                    acceptOne();
                else if (descriptor == alarm.descriptor())
                    sendAllThatIsDue();
                else
                    advance(descriptor, [this](Connection &peer) { return peer.serve(workshop); });
            }
        }
    }

private:
    static int listen()
    {
        const int listener = checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        checked(bind(listener, generic, sizeof address), "bind");
        checked(::listen(listener, SOMAXCONN), "listen");
        socklen_t length = sizeof address;
        checked(getsockname(listener, generic, &length), "getsockname");
        std::printf("%d\n", ntohs(address.sin_port));
        std::fflush(stdout);
        return listener;
    }

    void watch(int operation, int descriptor, std::uint32_t events) const
    {
        epoll_event event{};
        event.events = events;
        event.data.fd = descriptor;
        checked(epoll_ctl(epoll, operation, descriptor, &event), "epoll_ctl");
    }

    void acceptOne()
    {
        const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0)
            return; // gone already
        const int on = 1;
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        connections.emplace(socket, std::make_unique<Connection>(socket));
        watch(EPOLL_CTL_ADD, socket, EPOLLIN);
    }

    void sendAllThatIsDue()
    {
        for (int socket = alarm.takeDue(); socket >= 0; socket = alarm.takeDue())
            advance(
                socket, [](Connection &peer) { return peer.sendWhatIsDue(); });
    }

    // Takes a step on a connection, which tells whether it lives on, and watches for what it then waits for.
    template <class Step>
    void advance(int socket, const Step &step)
    {
        const auto found = connections.find(socket);
        if (found == connections.end())
            return; // ended by an event before this one
        Connection &connection = *found->second;
        const Connection::Awaits before = connection.awaits();
        if (before == Connection::Awaits::Time)
            alarm.remove(connection.due(), socket);
        if (!step(connection)) {
            connections.erase(found);
            return;
        }
        const Connection::Awaits after = connection.awaits();
        if (after == Connection::Awaits::Time)
            alarm.add(connection.due(), socket);
        if (after != before)
            watch(EPOLL_CTL_MOD, socket, eventsOf(after));
    }

    static std::uint32_t eventsOf(Connection::Awaits what)
    {
        switch (what) {
        case Connection::Awaits::Request:
            return EPOLLIN;
        case Connection::Awaits::Time:
            return EPOLLRDHUP;
        default:
            return EPOLLOUT;
        }
    }

    const int epoll;
    const int listener;
    Workshop workshop;
    Alarm alarm;
    std::unordered_map<int, std::unique_ptr<Connection>> connections;
};

} // namespace
} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        const std::chrono::microseconds ofDocument(count > 1 ? std::stoul(arguments[1]) : 0);
        veltrane::bench::PageServer(ofDocument).run();
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pageServer: %s\n", error.what());
        return 1;
    }
}
