// Every exchange with the search cluster: one request, its response read as a stream, its outcome judged.
#include "transport.h"
#include "http/exchangeOnce.h"
#include "server/encoding.h"
#include "server/errorBoundary.h"

namespace qm::pgFdwElaticSearch
{

using qm::pgFdw::SearchResultParser;
using server::callServer;
using server::FdwError;

namespace
{

// What one response may hold in memory: as much as fits into one value of the server, with room for the slack
// of compression. It also ends responses that never end.
constexpr size_t MostBytesOfAResponse = size_t{1023} << 20;

// What a message quotes of a response: after a broken transfer the text at hand is the document that was
// being read, which may be as large as one can be.
constexpr size_t MostBytesOfAnErrorText = size_t{64} << 10;

// Requests and responses are in UTF-8, messages in the database's encoding.
std::string readable(const std::string &message)
{
    return callServer([&] { return server::utf8ToMessage(message.c_str()); });
}

[[noreturn]] void throwRefusal(const ElasticSearchConnector *connector, const std::string &body,
                               const std::string &error, const char *function = __builtin_FUNCTION())
{
    std::string message = "ElasticSearch error";
    if (connector->fullErrorMsg)
        message += ", query was '" + body + "', error was '" + error.substr(0, MostBytesOfAnErrorText) + "'";
    throw FdwError(ERRCODE_FDW_ERROR, readable(message), function);
}

// Throws unless the transfer succeeded and the response is one of a search, read to its proper end.
void judge(const ElasticSearchConnector *connector, const std::string &body, const http::Outcome &outcome,
           SearchResultParser *parser)
{
    if (outcome.code != CURLE_OK && !parser->getErrorMessage().empty())
        throwRefusal(connector, body, parser->getErrorMessage());
    if (outcome.code != CURLE_OK) {
        std::string message = "Curl error (" + std::to_string(outcome.code) + ")";
        if (connector->fullErrorMsg)
            message += ", query was " + body + ", ";
        throw FdwError(ERRCODE_FDW_ERROR, readable(message));
    }
    if (outcome.status < 200 || outcome.status > 299)
        throwRefusal(connector, body, "HTTP status " + std::to_string(outcome.status));
    // Nothing, or something else than a search response, is not the same as one without hits.
    if (!parser->finish(nullptr) || !parser->hasHits()) {
        std::string message = "Elasticsearhc result parser error";
        if (connector->fullErrorMsg)
            message += ", query was " + body;
        throw FdwError(ERRCODE_FDW_ERROR, readable(message));
    }
}

} // namespace

size_t CurlWriteCallback(char *data, size_t size, size_t count, void *parser)
{
    const size_t length = size * count;
    auto *reader = static_cast<SearchResultParser *>(parser);
    try {
        if (!reader->addData(data, length))
            return 0;
        if (reader->heldBytes() > MostBytesOfAResponse)
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
    const http::Method method = deleteRequest  ? http::Method::Delete
                                : body.empty() ? http::Method::Get
                                               : http::Method::Post;
    const http::Request request{method, url, body};
    if (!parser) {
        http::exchangeBriefly(*connector->connection, request, http::endOfBriefWork());
        return;
    }
    const http::Outcome outcome =
        http::exchangeOnce(*connector->connection, request, CurlWriteCallback, parser);
    if (parser->readFailure)
        std::rethrow_exception(parser->readFailure);
    judge(connector, body, outcome, parser);
    connector->page->accept(parser->takeHits());
}

} // namespace qm::pgFdwElaticSearch
