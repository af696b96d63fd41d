// One HTTP transfer that the server can interrupt.
#pragma once

#include <curl/curl.h>

namespace qm::http
{

// Runs the transfer that `easy` describes and returns libcurl's result code. A cancel request, a time-out or
// a shutdown ends it within a fraction of a second: throws the server's own error as a ServerError. The
// handle is free for clean-up afterwards in either case.
CURLcode runTransfer(CURL *easy);

// Runs a transfer whose outcome does not matter, for one second at the most and not beyond statement_timeout;
// gives it up at once when the query is to be cancelled or the server to shut down, which it leaves to the
// server to act on. Does not throw.
void runBriefTransfer(CURL *easy);

} // namespace qm::http
