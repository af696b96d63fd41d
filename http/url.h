// Where a search cluster is, as the beginning of a URL.
#pragma once

#include <string>

namespace qm::http
{

// What the URLs of a cluster's requests begin with; both texts go into it as they are.
inline std::string clusterUrl(const char *address, const char *port)
{
    return std::string(address) + ":" + port;
}

// The URL with scheme, host, port and path, and without a slash at its end; empty when it is none of http or
// https, holds credentials, a query or a fragment, or a path that leads elsewhere. Without a scheme it means
// http.
std::string baseUrl(const std::string &url);

// Whether a segment of the path leads elsewhere: "." and "..", also percent-encoded.
bool hasDotSegment(const std::string &path);

// Whether requests to both go to the same scheme, host and port, as libcurl reads them, with the same
// credentials in the URL. A URL without a scheme means http. False when one cannot be read.
bool isSamePlace(const std::string &url, const std::string &other);

} // namespace qm::http
