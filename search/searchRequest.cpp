// What is asked of a search cluster, and the JSON of it.
#include "search/searchRequest.h"
#include "elasticsearch/jsonWriter.h"

#include <cstring>
#include <stdexcept>

namespace qm::search
{
namespace
{

std::string jsonArray(const std::vector<std::string> &texts)
{
    std::string array = "[";
    for (const std::string &text : texts) {
        if (array.size() > 1)
            array += ',';
        array += jsonString(text);
    }
    return array + "]";
}

std::string sourceMember(const SourceChoice &source)
{
    if (!source.isWanted)
        return "false";
    if (source.includes.empty() && source.excludes.empty())
        return "true";
    std::string member = "{";
    if (!source.includes.empty())
        member += R"("includes":)" + jsonArray(source.includes);
    if (!source.excludes.empty())
        member += (member.size() > 1 ? "," : "") + (R"("excludes":)" + jsonArray(source.excludes));
    return member + "}";
}

// The user's query is one of several things that must hold, and cannot get out of its place.
std::string queryMember(const SearchRequest &request, std::string_view filter)
{
    std::string member = R"({"bool":{"must":[)";
    member += request.query.empty() ? R"({"match_all":{}})" : request.query;
    member += "]";
    std::string filters;
    const auto append = [&](std::string_view each) {
        if (!filters.empty())
            filters += ',';
        filters += each;
    };
    for (const std::string &each : request.filters)
        append(each);
    if (!filter.empty())
        append(filter);
    if (!filters.empty())
        member += R"(,"filter":[)" + filters + "]";
    return member + "}}";
}

} // namespace

std::string jsonString(std::string_view utf8)
{
    std::string text;
    if (!zq::elasticsearch::appendJsonString(text, utf8))
        throw std::invalid_argument("text that is not valid UTF-8");
    return text;
}

std::string idFilter(const std::vector<std::string> &ids)
{
    return R"({"ids":{"values":)" + jsonArray(ids) + "}}";
}

std::string termsFilter(std::string_view field, const std::vector<std::string> &values)
{
    return R"({"terms":{)" + jsonString(field) + ":" + jsonArray(values) + "}}";
}

std::string searchPath(const std::string &indices)
{
    return "/" + indices + "/_search?allow_no_indices=false";
}

std::string searchBody(const SearchRequest &request, std::string_view filter, std::int64_t size, Order order)
{
    if (request.body)
        return "{" + *request.body + R"("size":)" + std::to_string(size) + "}";
    std::string body = R"({"query":)" + queryMember(request, filter);
    body += R"(,"size":)" + std::to_string(size) + R"(,"track_total_hits":true)";
    body += R"(,"_source":)" + sourceMember(request.source);
    if (!request.highlight.empty())
        body += R"(,"highlight":)" + request.highlight;
    if (!request.minScore.empty())
        body += R"(,"min_score":)" + request.minScore;
    if (!request.sort.empty())
        body += R"(,"sort":)" + request.sort;
    else if (order == Order::AsItComes)
        body += R"(,"sort":["_doc"])";
    return body + "}";
}

std::string pathPart(std::string_view text)
{
    constexpr char Digits[] = "0123456789ABCDEF";
    std::string part;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        const bool isHarmless = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                                (byte >= '0' && byte <= '9') || std::strchr("-._~,*:", each) != nullptr;
        if (isHarmless && each != '\0') {
            part += each;
        } else {
            part += '%';
            part += Digits[byte >> 4];
            part += Digits[byte & 15];
        }
    }
    return part;
}

} // namespace qm::search
