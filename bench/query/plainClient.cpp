#include "plainClient.h"

#include <algorithm>
#include <curl/curl.h>
#include <stdexcept>

namespace veltrane::bench
{
namespace
{

constexpr long ReceiveBuffer = 512 << 10;

// A scroll id stands within so many bytes.
constexpr std::size_t HeadBytes = 512;

CURL *makeHandle()
{
    CURL *const easy = curl_easy_init();
    if (!easy)
        throw std::runtime_error("curl_easy_init failed");
    return easy;
}

} // namespace

PlainClient::PlainClient(bool reuse) : shared(reuse ? makeHandle() : nullptr) {}

PlainClient::~PlainClient() { curl_easy_cleanup(shared); }

const std::string &PlainClient::send(const std::string &url, const std::string &body)
{
    perform(url, body, nullptr);
    return head;
}

void PlainClient::sendDeletion(const std::string &url) { perform(url, "", "DELETE"); }

void PlainClient::perform(const std::string &url, const std::string &body, const char *method)
{
    CURL *const easy = shared ? shared : makeHandle();
    curl_easy_reset(easy); // keeps the connection
    curl_slist *headers = nullptr;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, ReceiveBuffer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    if (!body.empty()) {
        headers = curl_slist_append(nullptr, "Content-Type:application/json");
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
    }
    if (method)
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method);

    head.clear();
    const CURLcode code = curl_easy_perform(easy);
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    if (!shared)
        curl_easy_cleanup(easy);
    if (code != CURLE_OK || status != 200)
        throw std::runtime_error(url + ": " + curl_easy_strerror(code) + ", status " +
                                 std::to_string(status) + ", " + head);
}

std::size_t PlainClient::take(char *data, std::size_t size, std::size_t count, void *client)
{
    auto *const self = static_cast<PlainClient *>(client);
    const std::size_t length = size * count;
    if (self->head.size() < HeadBytes)
        self->head.append(data, std::min(length, HeadBytes - self->head.size()));
    self->received += length;
    return length;
}

} // namespace veltrane::bench
