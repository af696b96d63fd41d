// What fetching costs: sends the requests of a scroll, as the module does, and throws the responses away.
//
//   fetchFloor [--reuse] PORT INDEX TOTAL SIZE        a scroll over TOTAL documents, SIZE a page
//   fetchFloor [--reuse] --single PORT INDEX BODY N   the same search N times
//
// Prints {"seconds":...,"bytes":...}: of the whole scroll, or the median search and all bytes.
#include "plainClient.h"
#include "stopwatch.h"

#include <cstdio>
#include <stdexcept>

namespace veltrane::bench
{
namespace
{

const char *const Usage = "fetchFloor [--reuse] [--single] PORT INDEX TOTAL|BODY SIZE|N";

std::string scrollIdIn(const std::string &head)
{
    const std::string member = R"("_scroll_id":")";
    const std::size_t start = head.find(member);
    if (start == std::string::npos)
        throw std::runtime_error("a response without a scroll id: " + head);
    const std::size_t id = start + member.size();
    return head.substr(id, head.find('"', id) - id);
}

double fetchScroll(PlainClient &client, const std::string &server, const std::string &index,
                   unsigned long total, unsigned long size)
{
    const std::string nextPage = server + "/_search/scroll?scroll=5m&scroll_id=";
    const Stopwatch watch;
    std::string id =
        scrollIdIn(client.send(server + "/" + index + "/_search/?scroll=5m",
                               R"({"query":{"match_all":{}},"size":)" + std::to_string(size) + "}"));
    // Like the module: a scroll of several pages is read to its end, one of a single page is deleted.
    for (unsigned long received = size; received < total; received += size)
        id = scrollIdIn(client.send(nextPage + id, ""));
    if (size >= total)
        client.sendDeletion(server + "/_search/scroll?&scroll_id=" + id);
    return watch.seconds();
}

double searchOften(PlainClient &client, const std::string &url, const std::string &body, unsigned long times)
{
    std::vector<double> seconds;
    while (seconds.size() < times) {
        const Stopwatch watch;
        client.send(url, body);
        seconds.push_back(watch.seconds());
    }
    return median(seconds);
}

void run(std::vector<std::string> arguments)
{
    const auto takeFlag = [&](const char *flag) {
        const bool given = !arguments.empty() && arguments.front() == flag;
        if (given)
            arguments.erase(arguments.begin());
        return given;
    };
    PlainClient client(takeFlag("--reuse"));
    const bool single = takeFlag("--single");
    if (arguments.size() != 4)
        throw std::invalid_argument(Usage);
    const std::string server = "http://127.0.0.1:" + arguments[0], &index = arguments[1];
    const unsigned long last = std::stoul(arguments[3]);
    const double seconds = single
                               ? searchOften(client, server + "/" + index + "//_search", arguments[2], last)
                               : fetchScroll(client, server, index, std::stoul(arguments[2]), last);
    std::printf("{\"seconds\":%.6f,\"bytes\":%zu}\n", seconds, client.bytesReceived());
}

} // namespace
} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        veltrane::bench::run({arguments + 1, arguments + count});
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "fetchFloor: %s\n", error.what());
        return 1;
    }
}
