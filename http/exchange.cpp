// One exchange: a request and its response.
#include "http/exchange.h"
#include "http/handles.h"
#include "http/transfer.h"

#include <new>

namespace qm::http
{
namespace
{

// A page of megabytes arrives in fewer and larger reads than with the default of 16 KiB.
constexpr long ReceiveBufferSize = 512 << 10;

// Whatever a URL says, nothing but http and https leaves the server's machine.
void allowHttpOnly(CURL *easy)
{
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS, CURLPROTO_HTTP | CURLPROTO_HTTPS);
#endif
    // A host name that begins with "ftp." is no reason to speak another protocol.
    curl_easy_setopt(easy, CURLOPT_DEFAULT_PROTOCOL, "http");
}

void apply(const Settings &settings, CURL *easy)
{
    if (settings.connectTimeoutMs > 0)
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeoutMs));
    if (settings.timeoutMs > 0)
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(settings.timeoutMs));
    if (settings.keepsAlive)
        curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    if (!settings.caFile.empty())
        curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.c_str());
    if (!settings.verifiesTls) {
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (!settings.clientCertificate.empty())
        curl_easy_setopt(easy, CURLOPT_SSLCERT, settings.clientCertificate.c_str());
    if (!settings.clientKey.empty())
        curl_easy_setopt(easy, CURLOPT_SSLKEY, settings.clientKey.c_str());
    if (settings.proxy)
        curl_easy_setopt(easy, CURLOPT_PROXY, settings.proxy->c_str());
    if (!settings.userName.empty()) {
        curl_easy_setopt(easy, CURLOPT_USERNAME, settings.userName.c_str());
        curl_easy_setopt(easy, CURLOPT_PASSWORD, settings.password.c_str());
    }
}

void append(HeaderList &headers, const char *line)
{
    curl_slist *longer = curl_slist_append(headers.get(), line);
    if (!longer)
        throw std::bad_alloc();
    (void)headers.release();
    headers.reset(longer);
}

HeaderList headersOf(const Settings &settings, const Request &request)
{
    HeaderList headers;
    if (!request.body.empty()) {
        append(headers, "Content-Type:application/json");
        append(headers, "Expect:"); // a large body is not to wait for the word to go on
    }
    if (!settings.authorization.empty())
        append(headers, settings.authorization.c_str());
    return headers;
}

// A handle that is ready to send the request, and what it refers to; settings and request must outlive it.
struct Prepared {
    EasyHandle easy;
    HeaderList headers;
};

Prepared prepare(const Settings &settings, const Request &request)
{
    Prepared prepared{EasyHandle(curl_easy_init()), headersOf(settings, request)};
    CURL *easy = prepared.easy.get();
    if (!easy)
        throw std::bad_alloc();
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, ReceiveBufferSize);
    allowHttpOnly(easy);
    apply(settings, easy);
    if (!request.body.empty())
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.c_str());
    if (prepared.headers)
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, prepared.headers.get());
    if (request.method == Method::Delete)
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, "DELETE");
    return prepared;
}

} // namespace

Outcome exchange(const Settings &settings, const Request &request, curl_write_callback write, void *target)
{
    const Prepared prepared = prepare(settings, request);
    CURL *easy = prepared.easy.get();
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, target);
    Outcome outcome{runTransfer(easy), 0};
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &outcome.status);
    long sentBytes = 0;
    curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &sentBytes);
    outcome.wasSent = sentBytes > 0;
    return outcome;
}

void exchangeBriefly(const Settings &settings, const Request &request, std::int64_t end)
{
    const Prepared prepared = prepare(settings, request);
    const curl_write_callback drop = [](char *, size_t size, size_t count, void *) { return size * count; };
    curl_easy_setopt(prepared.easy.get(), CURLOPT_WRITEFUNCTION, drop);
    runBriefTransfer(prepared.easy.get(), end);
}

} // namespace qm::http
