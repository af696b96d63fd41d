// What a failed exchange with a search cluster is as an error of the server.
#pragma once

#include "http/exchange.h"
#include "server/errorBoundary.h"

#include <string>
#include <string_view>

namespace qm::search
{

// "POST http://...", as messages name a request.
std::string describe(const http::Request &request);

// A text of the search cluster, in UTF-8, as part of a message: in the database's encoding, and no longer
// than a reader likes it.
std::string quoted(std::string_view utf8);

// What an error response says: its type and reason, "type: reason". `body` is the whole response; where it is
// no error object, its first words.
std::string reasonOf(std::string_view body);

// Why the first of the failed shards failed, of the `_shards` member of a response; empty when it does not
// say.
std::string failedShardReason(std::string_view shards);

// The transfer failed: the cluster cannot be reached, or the response ended early.
server::FdwError transferFailure(const http::Request &request, const http::Outcome &outcome);

// The cluster responded with another status than success.
server::FdwError refusal(const http::Request &request, const http::Outcome &outcome, std::string_view body);

// The response is none that was asked for; `problem` says why.
server::FdwError unreadable(const http::Request &request, const std::string &problem);

} // namespace qm::search
