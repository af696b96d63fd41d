// Where a search cluster is, as the beginning of a URL.
#include "http/url.h"
#include "http/handles.h"

#include <cstring>
#include <strings.h>

namespace qm::http
{
namespace
{

UrlHandle parse(const std::string &url)
{
    UrlHandle handle(curl_url());
    const bool hasScheme = url.find("://") != std::string::npos;
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, (hasScheme ? url : "http://" + url).c_str(),
                                0) != CURLUE_OK)
        return nullptr;
    return handle;
}

// Null when the URL has no such part.
UrlText partOf(const UrlHandle &url, CURLUPart part)
{
    char *text = nullptr;
    if (curl_url_get(url.get(), part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK)
        return nullptr;
    return UrlText(text);
}

bool areEqual(const UrlText &one, const UrlText &other, int (*compare)(const char *, const char *))
{
    return one && other ? compare(one.get(), other.get()) == 0 : !one && !other;
}

} // namespace

std::string baseUrl(const std::string &url)
{
    const UrlHandle parsed = parse(url);
    if (!parsed || url.find("://") == std::string::npos || hasDotSegment(url) ||
        url.find_first_of(" ?#\t\r\n") != std::string::npos)
        return "";
    const UrlText scheme = partOf(parsed, CURLUPART_SCHEME);
    const UrlText all = partOf(parsed, CURLUPART_URL);
    const bool isHttp =
        scheme && (strcasecmp(scheme.get(), "http") == 0 || strcasecmp(scheme.get(), "https") == 0);
    if (!isHttp || !all || partOf(parsed, CURLUPART_USER) || partOf(parsed, CURLUPART_PASSWORD))
        return "";
    std::string base = all.get();
    while (base.back() == '/')
        base.pop_back();
    return base;
}

bool hasDotSegment(const std::string &path)
{
    std::string decoded = path;
    for (size_t at = 0; (at = decoded.find('%', at)) != std::string::npos; ++at)
        if (strncasecmp(decoded.c_str() + at, "%2e", 3) == 0)
            decoded.replace(at, 3, ".");
    decoded = "/" + decoded + "/";
    return decoded.find("/./") != std::string::npos || decoded.find("/../") != std::string::npos;
}

bool isSamePlace(const std::string &url, const std::string &other)
{
    const UrlHandle one = parse(url);
    const UrlHandle two = parse(other);
    if (!one || !two)
        return false;
    const auto equal = [&](CURLUPart part, int (*compare)(const char *, const char *)) {
        return areEqual(partOf(one, part), partOf(two, part), compare);
    };
    return equal(CURLUPART_SCHEME, strcasecmp) && equal(CURLUPART_HOST, strcasecmp) &&
           equal(CURLUPART_PORT, strcmp) && equal(CURLUPART_USER, strcmp) &&
           equal(CURLUPART_PASSWORD, strcmp);
}

} // namespace qm::http
