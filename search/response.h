// What a cluster responds to a question about itself, read as a whole.
#pragma once

#include "elasticsearch/jsonRead.h"
#include "http/clock.h"
#include "http/exchange.h"
#include "search/clusterSession.h"
#include "search/failure.h"

#include <cstddef>
#include <memory>
#include <string>

namespace qm::search
{

// What one response may take: the positions of its parts have 32 bits, and a value of the server 30.
constexpr std::size_t MostBytesOfAResponse = std::size_t{1023} << 20;

struct Response {
    http::Request request;
    http::Outcome outcome;
    std::string body;

    bool isOk() const { return outcome.status == 200; }
};

// How long a response is waited for, where the server's options do not end that sooner, and how large it may
// be.
struct Bounds {
    http::Clock::time_point latest = http::Never;
    std::size_t bytes = MostBytesOfAResponse;
};

// Sends a request, whose URL is what follows that of a node, as Sending does. The outcome is for the caller
// to judge: the body may be a part of one. Throws FdwError for a response that is too large, and ServerError
// for a cancel.
Response attempt(const std::shared_ptr<ClusterSession> &session, http::Request request, const Bounds &bounds);

// The same, but no more than the status is left for the caller to judge: throws FdwError where no response
// comes in full, or one larger than a search's may be, and ServerError for a cancel.
Response ask(const std::shared_ptr<ClusterSession> &session, http::Request request);

// The same for a GET of the path, which begins with a slash.
Response get(const std::shared_ptr<ClusterSession> &session, const std::string &path);

// Runs read(), which reads `text`, a part of the response; what it finds wrong becomes an FdwError.
template <typename Read>
void reading(const Response &response, std::string_view text, Read &&read)
{
    try {
        read();
    } catch (const zq::elasticsearch::JsonError &fault) {
        const auto before = static_cast<std::size_t>(text.data() - response.body.data());
        throw unreadable(response.request, std::string(fault.what()) + " at byte " +
                                               std::to_string(before + fault.position + 1));
    } catch (const zq::elasticsearch::JsonNeedsMore &) {
        throw unreadable(response.request, response.body.empty() ? "empty response"
                                                                 : "response cut off at byte " +
                                                                       std::to_string(response.body.size()));
    }
}

// Calls take(cursor), which reads the value that the whole response is.
template <typename Take>
void readResponse(const Response &response, Take &&take)
{
    reading(
        response, response.body, [&] { zq::elasticsearch::readJson(response.body, take); });
}

} // namespace qm::search
