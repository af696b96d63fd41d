// What a cluster responds to a question about itself, read as a whole.
#include "server/errorBoundary.h"

#include "search/failure.h"
#include "search/response.h"

#include <new>

namespace qm::search
{
namespace
{

// What libcurl's callback fills; an exception must not cross its frames.
struct Sink {
    std::string &body;
    bool isTooLarge = false;
    bool isOutOfMemory = false;
};

std::size_t takeBytes(char *data, std::size_t size, std::size_t count, void *target)
{
    const std::size_t length = size * count;
    auto &sink = *static_cast<Sink *>(target);
    sink.isTooLarge = sink.body.size() + length > MostBytesOfAResponse;
    if (sink.isTooLarge)
        return 0;
    try {
        sink.body.append(data, length);
        return length;
    } catch (const std::exception &) {
        sink.isOutOfMemory = true;
        return 0;
    }
}

} // namespace

Response get(const Cluster &cluster, const std::string &path)
{
    Response response{{http::Method::Get, cluster.url + path, ""}, {}, ""};
    Sink sink{response.body};
    response.outcome = http::exchange(cluster.settings, response.request, takeBytes, &sink);
    if (sink.isOutOfMemory)
        throw std::bad_alloc();
    if (sink.isTooLarge)
        throw server::FdwError(ERRCODE_FDW_ERROR,
                               "the response of the search cluster is larger than 1023 MiB")
            .detailed(describe(response.request));
    if (response.outcome.code != CURLE_OK)
        throw transferFailure(response.request, response.outcome);
    return response;
}

} // namespace qm::search
