// One exchange: a request and its response.
#include "http/exchange.h"

#include <algorithm>
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

void leaveResolverBehind(CURL *easy)
{
#if LIBCURL_VERSION_NUM >= 0x075700
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#else
    (void)easy;
#endif
}

// Without the bound of the whole request: who waits for it keeps that.
void apply(const Settings &settings, CURL *easy)
{
    if (settings.connectTimeoutMs > 0)
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeoutMs));
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
    if (settings.compresses)
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip");
}

void append(HeaderList &headers, const std::string &line)
{
    curl_slist *longer = curl_slist_append(headers.get(), line.c_str());
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
        append(headers, settings.authorization);
    if (!request.opaqueId.empty())
        append(headers, "X-Opaque-Id: " + request.opaqueId);
    return headers;
}

} // namespace

std::size_t dropBody(char *, std::size_t size, std::size_t count, void *) { return size * count; }

Exchange::Exchange(Connections &connections, Request request, curl_write_callback write, void *target)
    : connections(connections), request(std::move(request)), write(write), target(target),
      headers(headersOf(connections.settings, this->request)), easy(curl_easy_init())
{
    if (!easy)
        throw std::bad_alloc();
    prepare();
    connections.add(easy.get(), completion);
}

Exchange::~Exchange() { end(CURLE_ABORTED_BY_CALLBACK); }

void Exchange::prepare()
{
    curl_easy_setopt(easy.get(), CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_BUFFERSIZE, ReceiveBufferSize);
    leaveResolverBehind(easy.get());
    allowHttpOnly(easy.get());
    apply(connections.settings, easy.get());
    prepareBody();
    if (request.trace)
        request.trace->begin(easy.get());
    if (headers)
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    if (request.method == Method::Delete)
        curl_easy_setopt(easy.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, this);
}

// libcurl cannot wind back a body that it reads from a function, and gives up in place of sending it twice.
void Exchange::prepareBody()
{
    if (request.body.empty())
        return;
    if (request.resend == Resend::Allowed) {
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, request.body.c_str());
        return;
    }
    curl_easy_setopt(easy.get(), CURLOPT_POST, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy.get(), CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(easy.get(), CURLOPT_READDATA, this);
}

std::size_t Exchange::readBody(char *target, std::size_t size, std::size_t count, void *exchange)
{
    auto *self = static_cast<Exchange *>(exchange);
    const std::size_t length = std::min(size * count, self->request.body.size() - self->bodySent);
    std::copy_n(self->request.body.data() + self->bodySent, length, target);
    self->bodySent += length;
    return length;
}

std::size_t Exchange::writeBody(char *data, std::size_t size, std::size_t count, void *exchange)
{
    auto *self = static_cast<Exchange *>(exchange);
    self->isStopped = self->connections.mustStop(self->deadline);
    return self->isStopped ? 0 : self->write(data, size, count, self->target);
}

// The connection is kept, unless it is in the midst of something.
const Outcome &Exchange::end(CURLcode code) noexcept
{
    if (!easy)
        return outcome;
    outcome.code = isStopped ? CURLE_OPERATION_TIMEDOUT : isDone() ? completion.code : code;
    completion.isDone = true;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &outcome.status);
    long sentBytes = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_REQUEST_SIZE, &sentBytes);
    outcome.wasSent = sentBytes > 0;
    curl_off_t number = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_SIZE_DOWNLOAD_T, &number);
    outcome.receivedBytes = number;
    curl_easy_getinfo(easy.get(), CURLINFO_NUM_CONNECTS, &outcome.openedConnections);
    curl_easy_getinfo(easy.get(), CURLINFO_RETRY_AFTER, &number);
    outcome.retryAfter = number;
    if (request.trace)
        request.trace->end(easy.get());
    connections.remove(easy.get());
    easy.reset();
    return outcome;
}

} // namespace qm::http
