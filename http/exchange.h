// One exchange: a request and its response.
#pragma once

#include "http/settings.h"

#include <curl/curl.h>
#include <string>

namespace qm::http
{

enum class Method { Get, Post, Delete };

// A body, of whatever method, is JSON.
struct Request {
    Method method;
    std::string url;
    std::string body;
};

struct Outcome {
    CURLcode code;
    long status;          // of HTTP; 0 without a response
    bool wasSent = false; // the request, or a part of it
};

// Sends the request once, on a connection of its own, and hands the body of the response to `write`, with
// `target`, as it arrives. Follows no redirect and speaks http and https only. A cancel request, a time-out
// of the server's or a shutdown ends it within a fraction of a second and is thrown as a ServerError. Throws
// std::bad_alloc.
Outcome exchange(const Settings &settings, const Request &request, curl_write_callback write, void *target);

// Sends a request whose response does not matter, and gives it up at the moment `end`: see runBriefTransfer.
// Throws std::bad_alloc, and raises nothing.
void exchangeBriefly(const Settings &settings, const Request &request, std::int64_t end);

} // namespace qm::http
