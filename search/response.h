// What a cluster responds to a question about itself, read as a whole.
#pragma once

#include "http/exchange.h"
#include "search/clusterSession.h"

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

// Sends a GET of the path, which begins with a slash, as Sending does. The status is for the caller to judge.
// Throws FdwError where no response comes in full, or one larger than a search's may be, and ServerError for
// a cancel.
Response get(const std::shared_ptr<ClusterSession> &session, const std::string &path);

} // namespace qm::search
