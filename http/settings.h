// How a request is sent, beyond where it goes: time-outs, TLS, credentials.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

namespace qm::http
{

// A string that is empty sets and sends nothing. The secrets must never reach an error text, a log or a URL.
struct Settings {
    std::int32_t connectTimeoutMs = 0; // 0: libcurl's default
    std::int32_t timeoutMs = 0;        // of a whole request; 0: none
    std::string caFile;                // certificate authorities to trust instead of the system's
    bool verifiesTls = true;
    std::string clientCertificate; // files in PEM
    std::string clientKey;
    bool keepsAlive = false;          // TCP asks a silent peer whether it is still there
    std::optional<std::string> proxy; // empty: none; absent: what the environment says
    std::string userName;             // for basic authentication
    std::string password;
    std::string authorization; // a whole header line
    bool compresses = false;   // responses may come compressed with gzip

    bool hasCredentials() const { return !userName.empty() || !authorization.empty(); }
};

inline bool operator==(const Settings &one, const Settings &other)
{
    const auto members = [](const Settings &of) {
        return std::tie(of.connectTimeoutMs, of.timeoutMs, of.caFile, of.verifiesTls, of.clientCertificate,
                        of.clientKey, of.keepsAlive, of.proxy, of.userName, of.password, of.authorization,
                        of.compresses);
    };
    return members(one) == members(other);
}

} // namespace qm::http
