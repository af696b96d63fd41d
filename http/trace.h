// What a request lets know of the connection that it goes out on.
#pragma once

#include <cstdint>
#include <ctime>
#include <curl/curl.h>
#include <string>

namespace qm::http
{

// What libcurl tells of a connection, and of the last exchange on it. Made for one that opens the connection:
// one that uses a kept connection is told less.
struct Trace {
    std::string address; // IP address of the other side, or of the proxy
    // Microseconds from the beginning; 0 where it did not come to that.
    std::int64_t resolved = 0;
    std::int64_t connected = 0;
    std::int64_t secured = 0;
    // Of the certificate that the other side showed; empty and 0 where it did not, or libcurl does not tell.
    std::string issuer;
    std::time_t expiry = 0;
    char problem[CURL_ERROR_SIZE] = ""; // why it failed; empty where libcurl says no more than its code

    // For the exchange, as it begins and ends.
    void begin(CURL *easy) noexcept;
    void end(CURL *easy) noexcept;
};

} // namespace qm::http
