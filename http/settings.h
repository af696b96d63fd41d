// How a request is sent, beyond where it goes: time-outs, TLS, credentials.
#pragma once

#include <cstdint>

namespace qm::http
{

// Plain data; all zero is the default: nothing is set and nothing is sent. The strings are the maker's, who
// keeps them as long as this is used. The secrets must never reach an error text, a log or a URL.
struct Settings {
    std::int32_t connectTimeoutMs; // 0: libcurl's default
    std::int32_t timeoutMs;        // of a whole request; 0: none
    char *caFile; // certificate authorities to trust instead of the system's; null: the system's
    bool skipTlsVerification;
    char *userName;      // for basic authentication; null: none
    char *password;      // null: empty
    char *authorization; // a whole header line; null: none
};

} // namespace qm::http
