// The SQL function veltranesearch_analyze: the terms that a text becomes in a field.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonRead.h"
#include "functions/arguments.h"
#include "functions/resultRows.h"
#include "functions/searchedTable.h"
#include "search/failure.h"
#include "search/response.h"
#include "search/searchRequest.h"

#include <cstdint>

namespace qm::functions
{
namespace
{

using search::Response;
using zq::elasticsearch::JsonCursor;

enum Column { Term, Position, StartOffset, EndOffset, Type, ColumnCount };

struct Token {
    std::string term;
    std::string type;
    std::int32_t position = -1;
    std::int32_t startOffset = -1;
    std::int32_t endOffset = -1;
    bool isWhole = false;
};

// -1 for what is no place in a text.
std::int32_t place(JsonCursor &cursor)
{
    const std::int64_t number = zq::elasticsearch::takeCount(cursor);
    return number <= INT32_MAX ? static_cast<std::int32_t>(number) : -1;
}

Token readToken(JsonCursor &cursor)
{
    Token token;
    bool hasTerm = false;
    forEachMember(cursor, [&](std::string_view name) {
        if (name == "token") {
            hasTerm = cursor.peek() == '"' &&
                      zq::elasticsearch::decodeJsonText(JsonCursor(cursor).string(), token.term);
            cursor.value();
        } else if (name == "type") {
            token.type = zq::elasticsearch::takeText(cursor);
        } else if (name == "position") {
            token.position = place(cursor);
        } else if (name == "start_offset") {
            token.startOffset = place(cursor);
        } else if (name == "end_offset") {
            token.endOffset = place(cursor);
        } else {
            cursor.value();
        }
    });
    token.isWhole = hasTerm && token.position >= 0 && token.startOffset >= 0 && token.endOffset >= 0;
    return token;
}

Response ask(FunctionCallInfo fcinfo)
{
    const SearchedTable table = searchedTable(PG_GETARG_OID(0));
    const std::string body = R"({"field":)" + search::jsonString(textArgument(fcinfo, 1, "field")) +
                             R"(,"text":)" + search::jsonString(textArgument(fcinfo, 2, "text")) + "}";
    Response response =
        search::ask(table.session, {http::Method::Post, "/" + table.options.indices + "/_analyze", body});
    if (!response.isOk())
        throw search::refusal(response.request, response.outcome, response.body);
    return response;
}

// Calls take(token) for each of the response's.
template <typename Take>
void readTokens(const Response &response, Take &&take)
{
    bool hasTokens = false;
    search::readResponse(response, [&](JsonCursor &cursor) {
        forEachMember(cursor, [&](std::string_view name) {
            if (name != "tokens" || cursor.peek() != '[') {
                cursor.value();
                return;
            }
            hasTokens = true;
            cursor.take('[');
            for (bool isFirst = true; cursor.nextElement(isFirst); isFirst = false)
                take(readToken(cursor));
        });
    });
    if (!hasTokens)
        throw search::unreadable(response.request, "no tokens");
}

void returnTokens(FunctionCallInfo fcinfo)
{
    ResultRows rows(fcinfo, ColumnCount);
    const Response response = ask(fcinfo);
    readTokens(response, [&](const Token &token) {
        if (!token.isWhole)
            throw search::unreadable(response.request, "a token without its text or its place");
        rows.add([&](ResultRows::Row &row) {
            row.setText(Term, token.term);
            row.set(Position, Int32GetDatum(token.position));
            row.set(StartOffset, Int32GetDatum(token.startOffset));
            row.set(EndOffset, Int32GetDatum(token.endOffset));
            row.setText(Type, token.type);
        });
    });
}

} // namespace
} // namespace qm::functions

#pragma GCC visibility push(default)
extern "C" {

PG_FUNCTION_INFO_V1(veltranesearch_analyze);

// veltranesearch_analyze(relation regclass, field text, text text) returns the terms in their order.
Datum veltranesearch_analyze(PG_FUNCTION_ARGS)
{
    qm::server::guardEntry([&] { qm::functions::returnTokens(fcinfo); });
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
