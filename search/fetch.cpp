// The fetching of responses of a search, one after the other.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/fetch.h"
#include "search/response.h"

#include <new>

namespace qm::search
{

using server::FdwError;

namespace
{

constexpr long StatusOk = 200;
constexpr long StatusNotFound = 404;

} // namespace

void Fetch::send(std::shared_ptr<ClusterSession> session, http::Request request, Purpose purposeOfIt)
{
    purpose = purposeOfIt;
    sending.emplace(std::move(session), std::move(request), purpose, static_cast<Receiver &>(*this));
}

void Fetch::begin()
{
    reader.clear();
    isTooLarge = false;
}

bool Fetch::take(const char *data, std::size_t length)
{
    isTooLarge = reader.heldBytes() + length > MostBytesOfAResponse;
    return !isTooLarge && reader.read(data, length);
}

void Fetch::finish() { judge(sending->finish()); }

void Fetch::giveUp() noexcept
{
    if (!sending)
        return;
    sending->giveUp();
    try {
        reader.finish();
    } catch (const std::bad_alloc &) {
        // It stays unread.
    }
}

void Fetch::judge(const http::Outcome &outcome)
{
    if (isTooLarge)
        throw FdwError(ERRCODE_FDW_ERROR, "the response of the search cluster is larger than 1023 MiB")
            .detailed(describe(request()))
            .hinted("Lower the option \"batchsize\" of the foreign table, or ask for less of the source.");
    const bool isRefused = outcome.status != 0 && outcome.status != StatusOk;
    if (isRefused && purpose == Purpose::NextPage && outcome.status == StatusNotFound)
        throw refusal(request(), outcome, reader.text())
            .hinted("The scroll context is gone: raise the option \"scrolltimeout\" of the foreign table.");
    if (isRefused)
        throw refusal(request(), outcome, reader.text());
    if (!reader.problem().empty())
        throw unreadable(request(), reader.problem());
    if (outcome.code != CURLE_OK)
        throw transferFailure(request(), outcome);
    if (!reader.finish())
        throw reader.error().empty() ? unreadable(request(), reader.problem())
                                     : refusal(request(), outcome, reader.text());
}

} // namespace qm::search
