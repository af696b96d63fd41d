// Every exchange with the search cluster: one request, its answer read as a stream, its outcome judged, its
// hits turned into datums.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwEncoding.h"
#include "quelmoraPgFdwTransfer.h"

#include <cstring>
#include <new>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::DatumQueue;
using qm::pgFdw::FdwError;
using qm::pgFdw::SearchResultParser;

namespace
{

// What one answer may hold in memory: as much as fits into one value of the server, with room for the slack
// of compression. It also ends answers that never end.
constexpr size_t MostBytesOfAnAnswer = size_t{1023} << 20;

// What a message quotes of an answer: after a broken transfer the text at hand is the document that was being
// read, which may be as large as one can be.
constexpr size_t MostBytesOfAnErrorText = size_t{64} << 10;

// A page of megabytes arrives in fewer and larger reads than with the default of 16 KiB.
constexpr long ReceiveBufferSize = 512 << 10;

// Whatever the address says, nothing but http and https leaves the server's machine.
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

void apply(const ConnectionSettings &settings, CURL *easy)
{
    if (settings.connectTimeoutMs > 0)
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeoutMs));
    if (settings.timeoutMs > 0)
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(settings.timeoutMs));
    if (settings.caFile)
        curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile);
    if (settings.skipTlsVerification) {
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (settings.userName) {
        curl_easy_setopt(easy, CURLOPT_USERNAME, settings.userName);
        curl_easy_setopt(easy, CURLOPT_PASSWORD, settings.password ? settings.password : "");
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

struct Outcome {
    CURLcode code;
    long status; // of HTTP; 0 without an answer
};

Outcome sendRequest(const ConnectionSettings &settings, const std::string &url, const std::string &body,
                    SearchResultParser *parser, bool deleteRequest)
{
    const EasyHandle easy(curl_easy_init());
    if (!easy)
        throw std::bad_alloc();
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, CurlWriteCallback);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, parser);
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_BUFFERSIZE, ReceiveBufferSize);
    allowHttpOnly(easy.get());
    apply(settings, easy.get());

    HeaderList headers;
    if (!body.empty()) {
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.c_str());
        append(headers, "Content-Type:application/json");
        append(headers, "Expect:"); // a large body is not to wait for the word to go on
    }
    if (settings.authorization)
        append(headers, settings.authorization);
    if (headers)
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    if (deleteRequest)
        curl_easy_setopt(easy.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
    if (!parser) {
        runBriefTransfer(easy.get());
        return {};
    }
    Outcome outcome{runTransfer(easy.get()), 0};
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &outcome.status);
    return outcome;
}

// Requests and answers are in UTF-8, messages in the database's encoding.
std::string readable(const std::string &message)
{
    return callServer([&] { return utf8ToMessage(message.c_str()); });
}

[[noreturn]] void throwRefusal(const std::string &body, const std::string &error, bool fullErrorMsg,
                               const char *function = __builtin_FUNCTION())
{
    std::string message = "ElasticSearch error";
    if (fullErrorMsg)
        message += ", query was '" + body + "', error was '" + error.substr(0, MostBytesOfAnErrorText) + "'";
    throw FdwError(ERRCODE_FDW_ERROR, readable(message), function);
}

// Throws unless the transfer succeeded and the answer is a search answer, read to its proper end.
void judge(const Outcome &outcome, const std::string &body, SearchResultParser *parser, bool fullErrorMsg)
{
    if (outcome.code != CURLE_OK && !parser->getErrorMessage().empty())
        throwRefusal(body, parser->getErrorMessage(), fullErrorMsg);
    if (outcome.code != CURLE_OK) {
        std::string message = "Curl error (" + std::to_string(outcome.code) + ")";
        if (fullErrorMsg)
            message += ", query was " + body + ", ";
        throw FdwError(ERRCODE_FDW_ERROR, readable(message));
    }
    if (outcome.status < 200 || outcome.status > 299)
        throwRefusal(body, "HTTP status " + std::to_string(outcome.status), fullErrorMsg);
    // Nothing, or something else than a search answer, is not the same as an answer without hits.
    if (!parser->finish(nullptr) || !parser->hasHits()) {
        std::string message = "Elasticsearhc result parser error";
        if (fullErrorMsg)
            message += ", query was " + body;
        throw FdwError(ERRCODE_FDW_ERROR, readable(message));
    }
}

// A text of the server ends at a NUL character: better no row than another document's id.
void refuseNulCharacters(const DatumQueue &texts, const char *what)
{
    for (Size i = 0; i < texts.count; ++i) {
        const auto *value = reinterpret_cast<const text *>(DatumGetPointer(texts.values[i]));
        if (std::memchr(VARDATA_ANY(value), 0, VARSIZE_ANY_EXHDR(value)))
            throw FdwError(ERRCODE_FDW_ERROR, std::string("ElasticSearch ") + what + " with a NUL character");
    }
}

// Replaces each entry by what `convert` makes of it on the server's side.
template <typename Convert>
void convertEach(DatumQueue &queue, Convert convert)
{
    callServer([&] {
        for (Size i = 0; i < queue.count; ++i)
            queue.values[i] = convert(queue.values[i]);
    });
}

// Ids and types become texts in the database's encoding, scores numbers; sources and highlights stay the
// bytes that they are.
void moveResults(ElasticSearchConnector *connector, const SearchResultParser &parser)
{
    refuseNulCharacters(parser.getDocIdList(), "document id");
    refuseNulCharacters(parser.getDocTypeList(), "document type");

    connector->resultDocNames = parser.getDocIdList();
    connector->resultDocContents = parser.getDocContentList();
    connector->resultScores = parser.getScoreList();
    connector->resultDocTypes = parser.getDocTypeList();
    connector->resultHighlights = parser.getHighlightList();

    qm::pgFdw::MemoryContextScope scope(connector->pageContext);
    convertEach(connector->resultDocNames, utf8ToServer);
    convertEach(connector->resultDocTypes, utf8ToServer);
    // A score that is no number stands in the message about it.
    convertEach(connector->resultScores, [](Datum score) {
        const char *number = utf8ToMessage(DatumGetCString(score));
        return DirectFunctionCall1Coll(float4in, InvalidOid, CStringGetDatum(number));
    });
}

} // namespace

size_t CurlWriteCallback(char *data, size_t size, size_t count, void *parser)
{
    const size_t length = size * count;
    if (!parser)
        return length;
    auto *reader = static_cast<SearchResultParser *>(parser);
    try {
        if (!reader->addData(data, length))
            return 0;
        if (reader->heldBytes() > MostBytesOfAnAnswer)
            throw FdwError(ERRCODE_FDW_ERROR,
                           "ElasticSearch answer larger than 1023 MiB, ask for less at once");
        return length;
    } catch (...) {
        reader->readFailure = std::current_exception();
        return 0;
    }
}

void DoCurlRequest(ElasticSearchConnector *connector, const std::string &url, const std::string &body,
                   SearchResultParser *parser, bool deleteRequest)
{
    const Outcome outcome = sendRequest(connector->connection, url, body, parser, deleteRequest);
    if (!parser)
        return;
    if (parser->readFailure)
        std::rethrow_exception(parser->readFailure);
    judge(outcome, body, parser, connector->fullErrorMsg);
    moveResults(connector, *parser);
}

} // namespace qm::pgFdwElaticSearch
