// All hits of a search, one after the other.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/hitStream.h"
#include "search/response.h"

#include <algorithm>
#include <chrono>

namespace qm::search
{

using server::callServer;
using server::FdwError;

namespace
{

// As many ids as a request names.
constexpr std::size_t IdsAtOnce = 1000;

constexpr long StatusOk = 200;
constexpr long StatusNotFound = 404;

// What libcurl's callback fills; an exception must not cross its frames.
struct Sink {
    zq::elasticsearch::SearchResponseReader &reader;
    std::int64_t bytes = 0;
    bool isTooLarge = false;
    bool isOutOfMemory = false;
};

std::size_t takeBytes(char *data, std::size_t size, std::size_t count, void *target)
{
    const std::size_t length = size * count;
    auto &sink = *static_cast<Sink *>(target);
    sink.bytes += static_cast<std::int64_t>(length);
    sink.isTooLarge = sink.reader.heldBytes() + length > MostBytesOfAResponse;
    if (sink.isTooLarge)
        return 0;
    try {
        return sink.reader.read(data, length) ? length : 0;
    } catch (const std::exception &) {
        sink.isOutOfMemory = true;
        return 0;
    }
}

// Of the ids those of one request, from the one on that comes after so many.
std::vector<std::string> idsFrom(const std::vector<std::string> &ids, std::size_t taken)
{
    const auto first = ids.begin() + static_cast<std::ptrdiff_t>(taken);
    return {first, first + static_cast<std::ptrdiff_t>(std::min(IdsAtOnce, ids.size() - taken))};
}

http::Request searchFor(const Cluster &cluster, const SearchRequest &request, std::string_view filter,
                        std::int64_t size)
{
    const Order order = request.needsScores ? Order::ByScore : Order::AsItComes;
    return {http::Method::Post, cluster.url + "/" + request.indices + "/_search?allow_no_indices=false",
            searchBody(request, filter, size, order)};
}

http::Request scrollFor(const Cluster &cluster, const SearchRequest &request, std::string_view filter,
                        std::int64_t size)
{
    http::Request search = searchFor(cluster, request, filter, size);
    search.url += "&scroll=" + request.scrollTimeout;
    return search;
}

} // namespace

http::Request firstRequest(const Cluster &cluster, const SearchRequest &request, const Paging &paging)
{
    if (request.ids) {
        const std::vector<std::string> first = idsFrom(*request.ids, 0);
        const auto size = static_cast<std::int64_t>(first.size());
        return searchFor(cluster, request, idFilter(first),
                         paging.limit < 0 ? size : std::min(size, paging.limit));
    }
    if (paging.limit >= 0)
        return searchFor(cluster, request, "", paging.limit);
    return paging.isSmall ? searchFor(cluster, request, "", paging.pageSize)
                          : scrollFor(cluster, request, "", paging.pageSize);
}

HitStream::HitStream(const Cluster &cluster, SearchRequest request, Paging paging)
    : cluster(cluster), request(std::move(request)), paging(paging)
{
    reader.lookFor(this->request.fields);
}

HitStream::~HitStream()
{
    if (context)
        ScrollContexts::ofSession().abandon(*context);
}

void HitStream::close() noexcept
{
    if (context)
        ScrollContexts::ofSession().remove(*context);
    context.reset();
    state = State::Done;
}

bool HitStream::next()
{
    if (following == reader.hitCount() && !fetch())
        return false;
    current = following++;
    ++returned;
    ++returnedOfPart;
    return true;
}

// Brings the next page that has a hit; false when there is none.
bool HitStream::fetch()
{
    for (;;) {
        const bool isEnough = paging.limit >= 0 && returned >= paging.limit && !paging.limitIsByScore;
        if (state == State::Done || isEnough) {
            close();
            return false;
        }
        const bool goesOn =
            state == State::Scroll && received < total && wanted() > 0 ? nextPage() : beginPart();
        if (goesOn && following < reader.hitCount())
            return true;
    }
}

// Begins with the next ids, or with the whole search; false when there is nothing left to search for.
bool HitStream::beginPart()
{
    endPart();
    if (request.ids) {
        if (idsTaken == request.ids->size()) {
            state = State::Done;
            return false;
        }
        const std::int64_t taken = takeIds();
        searchOnce(std::min(taken, wanted()));
    } else if (state != State::NotBegun) {
        state = State::Done;
        return false;
    } else if (paging.limit >= 0) {
        searchOnce(wanted());
    } else if (paging.isSmall) {
        searchOnce(paging.pageSize);
    } else {
        openScroll();
    }
    return true;
}

// Makes the next ids the filter; returns how many they are.
std::int64_t HitStream::takeIds()
{
    const std::vector<std::string> part = idsFrom(*request.ids, idsTaken);
    filter = idFilter(part);
    idsTaken += part.size();
    return static_cast<std::int64_t>(part.size());
}

// No document has two ids: what the parts find adds up.
std::int64_t HitStream::count()
{
    std::int64_t sum = 0;
    do {
        if (request.ids)
            takeIds();
        const http::Request search = searchFor(cluster, request, filter, 0);
        exchange(search);
        checkTotal(search);
        if (received > 0)
            throw unreadable(search, "hits where none were asked for");
        if (reader.summary().total > INT64_MAX - sum)
            throw unreadable(search, "a total that cannot be");
        sum += reader.summary().total;
    } while (request.ids && idsTaken < request.ids->size());
    return sum;
}

void HitStream::endPart()
{
    if (context)
        ScrollContexts::ofSession().remove(*context);
    context.reset();
    total = received = returnedOfPart = 0;
}

void HitStream::searchOnce(std::int64_t size)
{
    const http::Request search = searchFor(cluster, request, filter, size);
    exchange(search);
    checkTotal(search);
    total = reader.summary().total;
    if (received == total || received == wanted()) {
        state = State::OneSearch;
        total = received;
        return;
    }
    if (received < std::min(size, total))
        throwLost(search);
    // There are more than were asked for, and no row has been returned yet: start over.
    received = 0;
    openScroll();
}

void HitStream::openScroll()
{
    ScrollContexts::ofSession().removeAbandoned();
    const http::Request search = scrollFor(cluster, request, filter, paging.pageSize);
    exchange(search);
    scrollId = reader.summary().scrollId;
    if (!scrollId.empty())
        context = ScrollContexts::ofSession().note(cluster, scrollId);
    checkTotal(search);
    state = State::Scroll;
    total = reader.summary().total;
    if (received > total || (received == 0 && total > 0) || (received < total && scrollId.empty()))
        throwLost(search);
    if (received == total)
        endPart();
}

bool HitStream::nextPage()
{
    const http::Request page{http::Method::Post, cluster.url + "/_search/scroll",
                             R"({"scroll":)" + jsonString(request.scrollTimeout) + R"(,"scroll_id":)" +
                                 jsonString(scrollId) + "}"};
    exchange(page);
    checkTotal(page);
    if (!reader.summary().scrollId.empty() && reader.summary().scrollId != scrollId) {
        scrollId = reader.summary().scrollId;
        ScrollContexts::ofSession().rename(*context, scrollId);
    }
    const bool isEnd = reader.hitCount() == 0;
    if (reader.summary().total != total || received > total || (isEnd && !paging.toleratesPartial))
        throwLost(page);
    if (isEnd || received == total) {
        const std::int64_t all = received;
        endPart();
        total = received = all;
    }
    return !isEnd;
}

void HitStream::exchange(const http::Request &sent)
{
    using Clock = std::chrono::steady_clock;
    reader.clear();
    following = 0;
    Sink sink{reader};
    const auto begin = Clock::now();
    ++spent.requests;
    const http::Outcome outcome = http::exchange(cluster.settings, sent, takeBytes, &sink);
    spent.waitedMs += std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    spent.bytes += sink.bytes;

    if (sink.isOutOfMemory)
        throw std::bad_alloc();
    if (sink.isTooLarge)
        throw FdwError(ERRCODE_FDW_ERROR, "the response of the search cluster is larger than 1023 MiB")
            .detailed(describe(sent))
            .hinted("Lower the option \"batchsize\" of the foreign table, or ask for less of the source.");
    const bool isRefused = outcome.status != 0 && outcome.status != StatusOk;
    if (isRefused && state == State::Scroll && outcome.status == StatusNotFound)
        throw refusal(sent, outcome, reader.text())
            .hinted("The scroll context is gone: raise the option \"scrolltimeout\" of the foreign table.");
    if (isRefused)
        throw refusal(sent, outcome, reader.text());
    if (!reader.problem().empty())
        throw unreadable(sent, reader.problem());
    if (outcome.code != CURLE_OK)
        throw transferFailure(sent, outcome);
    if (!reader.finish())
        throw reader.error().empty() ? unreadable(sent, reader.problem())
                                     : refusal(sent, outcome, reader.text());
    ++spent.pages;
    spent.hits += static_cast<std::int64_t>(reader.hitCount());
    received += static_cast<std::int64_t>(reader.hitCount());
    if (reader.summary().isPartial())
        reportPartial(sent);
}

// Without an exact total nobody could tell whether all hits arrive.
void HitStream::checkTotal(const http::Request &sent)
{
    if (!reader.summary().hasTotal || reader.summary().totalIsLowerBound)
        throw unreadable(sent, "no exact total of hits");
}

void HitStream::reportPartial(const http::Request &sent) const
{
    const zq::elasticsearch::ResponseSummary &summary = reader.summary();
    std::string what;
    const auto append = [&](const std::string &text) { what += (what.empty() ? "" : ", ") + text; };
    if (summary.timedOut)
        append("timed out");
    if (summary.successfulShards < summary.totalShards || summary.failedShards > 0)
        append(std::to_string(summary.totalShards - summary.successfulShards) + " of " +
               std::to_string(summary.totalShards) + " shards failed or did not respond");
    if (summary.lackingClusters > 0)
        append(std::to_string(summary.lackingClusters) + " clusters did not respond in full");
    const std::string reason = failedShardReason(reader.shards());
    const std::string detail = describe(sent) + ": " + what + (reason.empty() ? "" : ": " + quoted(reason));
    const char *message = "the response of the search cluster lacks hits";
    if (!paging.toleratesPartial)
        throw FdwError(ERRCODE_FDW_ERROR, message)
            .detailed(detail)
            .hinted("Look at the cluster's health. The option \"partialresults\" of the foreign table can "
                    "make this a warning.");
    callServer([&] {
        ereport(WARNING, (errcode(ERRCODE_FDW_ERROR), errmsg_internal("%s", message),
                          errdetail_internal("%s", detail.c_str())));
    });
}

void HitStream::throwLost(const http::Request &sent) const
{
    throw FdwError(ERRCODE_FDW_ERROR, "the search cluster did not return all hits")
        .detailed(describe(sent) + ": " + std::to_string(received) + " hits arrived, " +
                  std::to_string(reader.summary().total) + " are said to match")
        .hinted("Try again; if it happens again, look at what stands between server and cluster.");
}

} // namespace qm::search
