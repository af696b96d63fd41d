// Every exchange with the search cluster: one request, its answer read as a stream, its outcome judged, its
// hits turned into datums.
#include "quelmoraPgFdwElasticSearchInternal.h"
#include "quelmoraPgFdwTransfer.h"

#include <new>

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::callServer;
using qm::pgFdw::FdwError;
using qm::pgFdw::SearchResultParser;

namespace
{

// Whatever the address says, nothing but http and https leaves the server's machine.
void allowHttpOnly(CURL *easy)
{
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS, CURLPROTO_HTTP | CURLPROTO_HTTPS);
#endif
}

CURLcode sendRequest(const std::string &url, const std::string &body, SearchResultParser *parser,
                     bool deleteRequest)
{
    const EasyHandle easy(curl_easy_init());
    if (!easy)
        throw std::bad_alloc();
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, CurlWriteCallback);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, parser);
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    allowHttpOnly(easy.get());

    HeaderList headers;
    if (!body.empty()) {
        curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, body.c_str());
        headers.reset(curl_slist_append(nullptr, "Content-Type:application/json"));
        curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    }
    if (deleteRequest)
        curl_easy_setopt(easy.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
    return runTransfer(easy.get());
}

// Throws unless the transfer succeeded and the answer was read to its proper end.
void judge(CURLcode code, const std::string &body, SearchResultParser *parser, bool fullErrorMsg)
{
    if (code != CURLE_OK && !parser->getErrorMessage().empty()) {
        std::string message = "ElasticSearch error";
        if (fullErrorMsg)
            message += ", query was '" + body + "', error was '" + parser->getErrorMessage() + "'";
        throw FdwError(ERRCODE_FDW_ERROR, message);
    }
    if (code != CURLE_OK) {
        std::string message = "Curl error (" + std::to_string(code) + ")";
        if (fullErrorMsg)
            message += ", query was " + body + ", ";
        throw FdwError(ERRCODE_FDW_ERROR, message);
    }
    if (!parser->finish(nullptr)) {
        std::string message = "Elasticsearhc result parser error";
        if (fullErrorMsg)
            message += ", query was " + body;
        throw FdwError(ERRCODE_FDW_ERROR, message);
    }
}

// A text of the server ends at a NUL character: better no row than another document's id.
void refuseNulCharacters(const std::vector<std::string> &texts, const char *what)
{
    for (const std::string &text : texts) {
        if (text.find('\0') != std::string::npos)
            throw FdwError(ERRCODE_FDW_ERROR, std::string("ElasticSearch ") + what + " with a NUL character");
    }
}

// [server side]
void appendTexts(DatumQueue &queue, const std::vector<std::string> &strings)
{
    queue.reserve(strings.size());
    for (const std::string &string : strings) {
        if (string.size() >= MaxAllocSize - VARHDRSZ)
            elog(ERROR, "a document of %zu bytes does not fit into a value", string.size());
        queue.append(
            PointerGetDatum(cstring_to_text_with_len(string.data(), static_cast<int>(string.size()))));
    }
}

// [server side]
void appendScores(DatumQueue &queue, const std::vector<std::string> &strings)
{
    queue.reserve(strings.size());
    for (const std::string &string : strings)
        queue.append(DirectFunctionCall1Coll(float4in, InvalidOid, CStringGetDatum(string.c_str())));
}

void moveResults(ElasticSearchConnector *connector, const SearchResultParser &parser)
{
    refuseNulCharacters(parser.getDocIdList(), "document id");
    refuseNulCharacters(parser.getDocTypeList(), "document type");

    qm::pgFdw::MemoryContextScope scope(connector->pageContext);
    callServer([&] {
        appendTexts(connector->resultDocNames, parser.getDocIdList());
        appendTexts(connector->resultDocContents, parser.getDocContentList());
        appendScores(connector->resultScores, parser.getScoreList());
        appendTexts(connector->resultDocTypes, parser.getDocTypeList());
        appendTexts(connector->resultHighlights, parser.getHighlightList());
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
        return reader->addData(data, length) ? length : 0;
    } catch (...) {
        reader->readFailure = std::current_exception();
        return 0;
    }
}

void DoCurlRequest(ElasticSearchConnector *connector, const std::string &url, const std::string &body,
                   SearchResultParser *parser, bool deleteRequest)
{
    const CURLcode code = sendRequest(url, body, parser, deleteRequest);
    if (!parser)
        return;
    if (parser->readFailure)
        std::rethrow_exception(parser->readFailure);
    judge(code, body, parser, connector->fullErrorMsg);
    moveResults(connector, *parser);
}

} // namespace qm::pgFdwElaticSearch
