// Exchanges on connections of their own.
#include "http/exchangeOnce.h"

namespace qm::http
{

Outcome exchangeOnce(const Settings &settings, const Request &request, curl_write_callback write,
                     void *target)
{
    const Clock::time_point deadline = deadlineOf(settings.timeoutMs);
    Connections connections(settings, Reuse::None);
    Exchange exchange(connections, request, write, target);
    return finish(exchange, deadline);
}

void exchangeBriefly(const Settings &settings, const Request &request, Clock::time_point end)
{
    Connections connections(settings, Reuse::None);
    Exchange exchange(connections, request, dropBody, nullptr);
    finishBriefly(exchange, end);
}

} // namespace qm::http
