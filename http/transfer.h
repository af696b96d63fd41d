// One HTTP transfer that the server can interrupt.
#pragma once

#include <cstdint>
#include <curl/curl.h>

namespace qm::http
{

// Runs the transfer that `easy` describes and returns libcurl's result code. A cancel request, a time-out or
// a shutdown ends it within a fraction of a second: throws the server's own error as a ServerError. The
// handle is free for clean-up afterwards in either case.
CURLcode runTransfer(CURL *easy);

// The moment by which what begins now and may be given up is given up: in a second, and before
// statement_timeout strikes. The statement has done its work, and a time-out that nobody raises as an error
// then would strike between this statement and the next. In microseconds, as the server counts them.
std::int64_t endOfBriefWork();

// Runs a transfer whose outcome does not matter until that moment at the most; gives it up at once when the
// query is to be cancelled or the server to shut down, which it leaves to the server to act on. Neither
// throws nor raises.
void runBriefTransfer(CURL *easy, std::int64_t end);

} // namespace qm::http
