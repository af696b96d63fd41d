// Exchanges on connections of their own.
#pragma once

#include "http/waiting.h"

namespace qm::http
{

// Sends the request once and hands the body of the response to `write`, as Exchange does; waits for it as
// finish does.
Outcome exchangeOnce(const Settings &settings, const Request &request, curl_write_callback write,
                     void *target);

// Sends a request whose response does not matter, and gives it up at the moment `end`: see finishBriefly.
// Throws std::bad_alloc, and raises nothing.
void exchangeBriefly(const Settings &settings, const Request &request, Clock::time_point end);

} // namespace qm::http
