// All hits of a search, one after the other.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/hitStream.h"
#include "search/response.h"

#include <algorithm>

namespace qm::search
{

using server::callServer;
using server::FdwError;

namespace
{

// As many ids as a request names.
constexpr std::size_t IdsAtOnce = 1000;

// Of the ids those of one request, from the one on that comes after so many.
std::vector<std::string> idsFrom(const std::vector<std::string> &ids, std::size_t taken)
{
    const auto first = ids.begin() + static_cast<std::ptrdiff_t>(taken);
    return {first, first + static_cast<std::ptrdiff_t>(std::min(IdsAtOnce, ids.size() - taken))};
}

http::Request searchFor(const SearchRequest &request, std::string_view filter, std::int64_t size)
{
    const Order order = request.needsScores ? Order::ByScore : Order::AsItComes;
    return {http::Method::Post, searchPath(request.indices), searchBody(request, filter, size, order)};
}

http::Request scrollFor(const SearchRequest &request, std::string_view filter, std::int64_t size)
{
    http::Request search = searchFor(request, filter, size);
    search.url += "&scroll=" + request.scrollTimeout;
    return search;
}

} // namespace

http::Request firstRequest(const SearchRequest &request, const Paging &paging)
{
    if (request.ids) {
        const std::vector<std::string> first = idsFrom(*request.ids, 0);
        const auto size = static_cast<std::int64_t>(first.size());
        return searchFor(request, idFilter(first), paging.limit < 0 ? size : std::min(size, paging.limit));
    }
    if (paging.limit >= 0)
        return searchFor(request, "", paging.limit);
    return paging.isSmall ? searchFor(request, "", paging.pageSize) : scrollFor(request, "", paging.pageSize);
}

HitStream::HitStream(std::shared_ptr<ClusterSession> session, SearchRequest request, Paging paging)
    : session(std::move(session)), request(std::move(request)), paging(paging),
      page(std::make_unique<Fetch>(this->request.fields))
{
}

HitStream::~HitStream()
{
    if (context)
        ScrollContexts::ofSession().abandon(*context);
}

void HitStream::close() noexcept
{
    endPart();
    state = State::Done;
}

Statistics HitStream::statistics() const
{
    Statistics all = spent;
    if (isAhead)
        all.add(following->statistics());
    return all;
}

bool HitStream::next()
{
    if (isAhead)
        following->advance();
    if ((nextHit == hitCount() || isEnough()) && !fetch())
        return false;
    current = nextHit++;
    ++returned;
    ++returnedOfPart;
    return true;
}

// Brings the next page that has a hit; false when there is none.
bool HitStream::fetch()
{
    for (;;) {
        if (state == State::Done || isEnough()) {
            close();
            return false;
        }
        const bool goesOn =
            state == State::Scroll && received < total && wanted() > 0 ? nextPage() : beginPart();
        if (goesOn && nextHit < hitCount())
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
    } else if (paging.requests != Requests::Scroll && (paging.limit >= 0 || paging.isSmall)) {
        searchOnce(paging.limit >= 0 ? wanted() : paging.pageSize);
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
        exchange(searchFor(request, filter, 0), Purpose::Search);
        if (received > 0)
            throw unreadable(page->request(), "hits where none were asked for");
        if (summary().total > INT64_MAX - sum)
            throw unreadable(page->request(), "a total that cannot be");
        sum += summary().total;
    } while (request.ids && idsTaken < request.ids->size());
    return sum;
}

void HitStream::endPart() noexcept
{
    if (isAhead) {
        following->giveUp();
        spent.add(following->statistics());
        isAhead = false;
    }
    if (context)
        ScrollContexts::ofSession().remove(*context);
    context.reset();
    total = received = returnedOfPart = 0;
}

void HitStream::searchOnce(std::int64_t size)
{
    exchange(searchFor(request, filter, size), Purpose::Search);
    total = summary().total;
    if (received == total || received == wanted() || paging.requests == Requests::One) {
        state = State::OneSearch;
        total = received;
        return;
    }
    if (received < std::min(size, total))
        throwLost();
    // There are more than were asked for, and no row has been returned yet: start over.
    received = 0;
    openScroll();
}

void HitStream::openScroll()
{
    ScrollContexts::ofSession().removeAbandoned();
    try {
        exchange(scrollFor(request, filter, paging.pageSize), Purpose::OpenScroll);
    } catch (...) {
        page->giveUp();
        noteContext();
        throw;
    }
    noteContext();
    state = State::Scroll;
    total = summary().total;
    if (received > total || (received == 0 && total > 0) || (received < total && !context))
        throwLost();
    if (received == total)
        endPart();
}

// However the response ends: it tells the context first.
void HitStream::noteContext()
{
    scrollId = summary().scrollId;
    if (!scrollId.empty())
        context = ScrollContexts::ofSession().note(session, scrollId);
}

http::Request HitStream::nextPageRequest() const
{
    return {http::Method::Post, "/_search/scroll",
            R"({"scroll":)" + jsonString(request.scrollTimeout) + R"(,"scroll_id":)" + jsonString(scrollId) +
                "}"};
}

bool HitStream::nextPage()
{
    if (isAhead) {
        std::swap(page, following);
        isAhead = false;
        acceptPage();
    } else {
        exchange(nextPageRequest(), Purpose::NextPage);
    }
    if (!summary().scrollId.empty() && summary().scrollId != scrollId) {
        scrollId = summary().scrollId;
        ScrollContexts::ofSession().rename(*context, scrollId);
    }
    const bool isEnd = hitCount() == 0;
    if (summary().total != total || received > total ||
        (isEnd && paging.partialResults == PartialResults::Error))
        throwLost();
    if (isEnd || received == total) {
        const std::int64_t all = received;
        endPart();
        total = received = all;
    } else if (session->cluster.fetchesAhead && static_cast<std::int64_t>(hitCount()) < wanted()) {
        sendAhead();
    }
    return !isEnd;
}

void HitStream::sendAhead()
{
    if (!following)
        following = std::make_unique<Fetch>(request.fields);
    following->send(session, nextPageRequest(), Purpose::NextPage);
    isAhead = true;
}

void HitStream::exchange(http::Request sent, Purpose purpose)
{
    page->send(session, std::move(sent), purpose);
    acceptPage();
}

// Waits for the page, and makes sure that it is whole. Without an exact total nobody could tell whether all
// hits of several pages arrive.
void HitStream::acceptPage()
{
    nextHit = 0;
    page->finish();
    const auto hits = static_cast<std::int64_t>(hitCount());
    spent.add(page->statistics());
    Statistics part;
    part.pages = 1;
    part.hits = hits;
    spent.add(part);
    session->spent.add(part);
    received += hits;
    checkWhole(page->response(), page->request(), paging.partialResults);
    const bool countsAll = summary().hasTotal && !summary().totalIsLowerBound;
    if (!countsAll && paging.requests != Requests::One)
        throw unreadable(page->request(), "no exact total of hits");
}

void HitStream::throwLost() const
{
    throw FdwError(ERRCODE_FDW_ERROR, "the search cluster did not return all hits")
        .detailed(describe(page->request()) + ": " + std::to_string(received) + " hits arrived, " +
                  std::to_string(summary().total) + " are said to match")
        .hinted("Try again; if it happens again, look at what stands between server and cluster.");
}

} // namespace qm::search
