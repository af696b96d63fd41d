// The fetching of responses of a search, one after the other.
#pragma once

#include "elasticsearch/searchResponseReader.h"
#include "search/sending.h"

#include <optional>
#include <string>
#include <vector>

namespace qm::search
{

// A request under way and its response as far as it has been read. The memory serves again for the next.
class Fetch final : private Receiver
{
public:
    // `fields` are looked for in the sources.
    explicit Fetch(const std::vector<std::string> &fields) { reader.lookFor(fields); }

    // Sends the request, as Sending does.
    void send(std::shared_ptr<ClusterSession> session, http::Request request, Purpose purpose);
    // Works off what can be done without waiting, as Sending does.
    void advance() noexcept { sending->advance(); }
    // Waits for the response and judges it: it is a whole search response then. Throws FdwError, ServerError
    // and std::bad_alloc.
    void finish();
    // Ends the exchange and reads what has arrived, of which the response may tell something.
    void giveUp() noexcept;

    // The request as it was last sent, and what it cost so far.
    const http::Request &request() const { return sending->request(); }
    const Statistics &statistics() const { return sending->statistics(); }
    const zq::elasticsearch::SearchResponseReader &response() const { return reader; }

private:
    void begin() override;
    bool take(const char *data, std::size_t length) override;
    void judge(const http::Outcome &outcome);

    zq::elasticsearch::SearchResponseReader reader;
    bool isTooLarge = false;
    Purpose purpose = Purpose::Search;
    std::optional<Sending> sending; // goes before what it writes into
};

} // namespace qm::search
