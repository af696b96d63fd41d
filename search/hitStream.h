// All hits of a search, one after the other.
#pragma once

#include "search/clusterSession.h"
#include "search/fetch.h"
#include "search/partial.h"
#include "search/scrollContexts.h"
#include "search/searchRequest.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace qm::search
{

// In how many requests the hits are fetched: as few as are needed; one, whatever it brings; a scroll.
enum class Requests { AsNeeded, One, Scroll };

// How the hits are fetched.
struct Paging {
    std::int64_t pageSize = 1000; // hits a page
    std::int64_t limit = -1;      // so many hits are enough; -1: all are wanted; 0: a count
    bool limitIsByScore = false;  // and they are those of the highest scores
    bool isSmall = false;         // the result is likely to fit into a page
    PartialResults partialResults = PartialResults::Error;
    Requests requests = Requests::AsNeeded; // One takes a limit
};

// The request that a stream of these begins with; its URL is what follows that of a node.
http::Request firstRequest(const SearchRequest &request, const Paging &paging);

// Fetches the hits of a search, whatever their number: those of a small search or a look-up with one request,
// all others page by page through a scroll, of which from the second page on the next one is on its way while
// one is read. A hit that is lost is an error, never the end. Requests are sent when a hit is asked for.
// Failures are thrown as FdwError, interrupts as ServerError.
class HitStream
{
public:
    HitStream(std::shared_ptr<ClusterSession> session, SearchRequest request, Paging paging);
    // An open scroll context is left to be deleted at the next occasion.
    ~HitStream();
    HitStream(const HitStream &) = delete;
    HitStream &operator=(const HitStream &) = delete;

    // Goes to the next hit; false when there is none.
    bool next();
    // A member of the hit; the text is in the stream's memory until the next call of next.
    std::string_view member(zq::elasticsearch::HitMember member) const
    {
        return page->response().member(current, member);
    }
    // The values in the hit's source of the request's fields; the text as above.
    std::size_t fieldCount() const { return page->response().fieldCount(current); }
    zq::elasticsearch::FieldValue field(std::size_t i) const { return page->response().field(current, i); }
    // In place of the hits their number, for which none is fetched.
    std::int64_t count();
    // Ends the stream: deletes an open scroll context.
    void close() noexcept;

    // What the last response says beside its hits.
    const zq::elasticsearch::ResponseSummary &summary() const { return page->response().summary(); }

    Statistics statistics() const;

private:
    // Of the ids that are looked up, or of the whole search.
    enum class State { NotBegun, OneSearch, Scroll, Done };

    bool fetch();
    bool beginPart();
    std::int64_t takeIds();
    void searchOnce(std::int64_t size);
    void openScroll();
    bool nextPage();
    void endPart() noexcept;
    http::Request nextPageRequest() const;
    void sendAhead();
    void exchange(http::Request request, Purpose purpose);
    void acceptPage();
    void noteContext();
    [[noreturn]] void throwLost() const;
    std::size_t hitCount() const { return page->response().hitCount(); }
    bool isEnough() const { return paging.limit >= 0 && returned >= paging.limit && !paging.limitIsByScore; }
    // Of this part. Of the highest scores any part may have all.
    std::int64_t wanted() const
    {
        return paging.limit < 0 ? INT64_MAX
                                : paging.limit - (paging.limitIsByScore ? returnedOfPart : returned);
    }

    const std::shared_ptr<ClusterSession> session;
    const SearchRequest request;
    const Paging paging;
    Statistics spent; // on the pages that have come

    std::unique_ptr<Fetch> page;
    std::unique_ptr<Fetch> following; // null before there is one
    bool isAhead = false;             // the following page is on its way
    std::size_t current = 0;          // hit of the page
    std::size_t nextHit = 0;
    std::int64_t returned = 0;
    std::int64_t returnedOfPart = 0;

    State state = State::NotBegun;
    std::size_t idsTaken = 0;
    std::string filter;        // of the ids of this part
    std::int64_t total = 0;    // of this part
    std::int64_t received = 0; // of it
    std::optional<ScrollContexts::Handle> context;
    std::string scrollId;
};

} // namespace qm::search
