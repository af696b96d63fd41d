// How a scan reaches its search cluster beyond address and port: what the server object and the user mapping
// add. Without either, nothing is set and nothing is sent.
#pragma once

#include "quelmoraPgServer.h"

namespace qm::pgFdwElaticSearch
{

// Plain data; all zero is the default. Strings live as long as the scan. The secrets must never reach an
// error text, a log or a URL.
struct ConnectionSettings {
    char *address;          // where the server object says that the cluster is; null where it does not say
    char *port;
    int32 connectTimeoutMs; // 0: libcurl's default
    int32 timeoutMs;        // of a whole request; 0: none
    char *caFile;           // certificate authorities to trust instead of the system's; null: the system's
    bool skipTlsVerification;
    char *userName;      // for basic authentication; null: none
    char *password;      // null: empty
    char *authorization; // a whole header line; null: none
};

// Reads the options of the foreign server and of the user's mapping, if there is one. Strings are allocated
// in the current memory context. Throws FdwError for a value that an option does not take.
void readConnectionOptions(ConnectionSettings &settings, Oid serverId, Oid userId);

} // namespace qm::pgFdwElaticSearch
