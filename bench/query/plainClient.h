// What a request costs a program that only fetches: libcurl, and the response thrown away.
#pragma once

#include <memory>
#include <string>

using CURL = void;

namespace veltrane::bench
{

class PlainClient
{
public:
    // With `reuse` all requests share one handle and its connection; else each has its own, as in the
    // module.
    explicit PlainClient(bool reuse);
    ~PlainClient();
    PlainClient(const PlainClient &) = delete;
    PlainClient &operator=(const PlainClient &) = delete;

    // Sends a POST of JSON, or a GET if the body is empty. Returns the first bytes of the response, which
    // live until the next request. Throws std::runtime_error unless the response is complete and has status
    // 200.
    const std::string &send(const std::string &url, const std::string &body);
    void sendDeletion(const std::string &url);

    // Of all responses so far.
    std::size_t bytesReceived() const { return received; }

private:
    void perform(const std::string &url, const std::string &body, const char *method);
    static std::size_t take(char *data, std::size_t size, std::size_t count, void *client);

    CURL *shared = nullptr; // nullptr: a handle per request
    std::string head;
    std::size_t received = 0;
};

} // namespace veltrane::bench
