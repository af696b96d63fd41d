// One exchange: a request and its response.
#pragma once

#include "http/connections.h"
#include "http/handles.h"
#include "http/trace.h"

#include <cstdint>
#include <curl/curl.h>
#include <string>

namespace qm::http
{

enum class Method { Get, Post, Delete };

// Whether libcurl may send a request a second time, in silence, where a kept connection breaks before the
// first byte of a response: nobody knows then whether the first one has arrived.
enum class Resend { Allowed, Forbidden };

// A body, of whatever method, is JSON.
struct Request {
    Method method = Method::Get;
    std::string url;
    std::string body;
    Resend resend = Resend::Allowed;
    std::string opaqueId = {}; // by which the other side may tell who asks; empty: none
    Trace *trace = nullptr;    // where to put what its connection tells; outlives the exchange; null: nowhere
};

struct Outcome {
    CURLcode code = CURLE_OK;
    long status = 0;      // of HTTP; 0 without a response
    bool wasSent = false; // the request, or a part of it
    // Of the body, as they came over the wire.
    std::int64_t receivedBytes = 0;
    long openedConnections = 0;
    std::int64_t retryAfter = 0; // seconds after which the other side wants to be asked again; 0: not said
};

// A libcurl write callback for a body that nobody reads.
std::size_t dropBody(char *data, std::size_t size, std::size_t count, void *target);

// An exchange under way. Begins when it is made and ends when it goes, whatever its state.
class Exchange
{
public:
    // Hands the body of the response to `write`, with `target`, as it arrives. Follows no redirect and speaks
    // http and https only. The connections and the target must outlive this. Throws std::bad_alloc.
    Exchange(Connections &connections, Request request, curl_write_callback write, void *target);
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    bool isDone() const { return completion.isDone; }
    // It is not to go on after that, however much there is to work off at a time.
    void endBy(Clock::time_point moment) { deadline = moment; }
    // What came of it. What is not done is ended, with this code.
    const Outcome &end(CURLcode code) noexcept;

    Connections &carrier() const { return connections; }

private:
    void prepare();
    void prepareBody();
    static std::size_t readBody(char *target, std::size_t size, std::size_t count, void *exchange);
    static std::size_t writeBody(char *data, std::size_t size, std::size_t count, void *exchange);

    Connections &connections;
    const Request request;
    const curl_write_callback write;
    void *const target;
    std::size_t bodySent = 0;
    HeaderList headers;
    EasyHandle easy; // null when it was ended
    Completion completion;
    Clock::time_point deadline = Never;
    bool isStopped = false; // in the midst of its response
    Outcome outcome;
};

} // namespace qm::http
