// Waiting for exchanges, in ways that the server can interrupt.
#pragma once

#include "http/clock.h"
#include "http/exchange.h"

namespace qm::http
{

// What begins now is to be done by then; Never where `timeoutMs` is 0.
Clock::time_point deadlineOf(std::int32_t timeoutMs);

// Waits until the exchange is done, and ends it at the deadline as timed out. A cancel request, a time-out of
// the server's or a shutdown is thrown as a ServerError within a fraction of a second. Throws std::bad_alloc.
const Outcome &finish(Exchange &exchange, Clock::time_point deadline);

// Waits until then, with other exchanges going on; interrupts as above.
void rest(Connections &connections, Clock::time_point until);

// The moment by which what begins now and may be given up is given up: in a second, and before
// statement_timeout strikes. The statement has done its work, and a time-out that nobody raises as an error
// then would strike between this statement and the next.
Clock::time_point endOfBriefWork();

// Waits for an exchange whose outcome does not matter until that moment at the most; gives it up at once when
// the query is to be cancelled or the server to shut down, which it leaves to the server to act on. Neither
// throws nor raises.
void finishBriefly(Exchange &exchange, Clock::time_point end) noexcept;

} // namespace qm::http
