// What a cluster responds to a question about itself, read as a whole.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/response.h"
#include "search/sending.h"

namespace qm::search
{
namespace
{

class Body final : public Receiver
{
public:
    Body(std::string &target, std::size_t most) : target(target), most(most) {}

    void begin() override
    {
        target.clear();
        isTooLarge = false;
    }
    bool take(const char *data, std::size_t length) override
    {
        isTooLarge = target.size() + length > most;
        if (!isTooLarge)
            target.append(data, length);
        return !isTooLarge;
    }

    bool isTooLarge = false;

private:
    std::string &target;
    const std::size_t most;
};

} // namespace

Response attempt(const std::shared_ptr<ClusterSession> &session, http::Request request, const Bounds &bounds)
{
    Response response;
    Body body(response.body, bounds.bytes);
    Sending sending(session, std::move(request), Purpose::Search, body);
    response.outcome = sending.finish(bounds.latest);
    response.request = sending.request();
    if (body.isTooLarge)
        throw server::FdwError(ERRCODE_FDW_ERROR, "the response of the search cluster is larger than " +
                                                      std::to_string(bounds.bytes >> 20) + " MiB")
            .detailed(describe(response.request));
    return response;
}

Response ask(const std::shared_ptr<ClusterSession> &session, http::Request request)
{
    Response response = attempt(session, std::move(request), {});
    if (response.outcome.code != CURLE_OK)
        throw transferFailure(response.request, response.outcome);
    return response;
}

Response get(const std::shared_ptr<ClusterSession> &session, const std::string &path)
{
    return ask(session, {http::Method::Get, path, ""});
}

} // namespace qm::search
