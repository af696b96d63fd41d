// What a request lets know of the connection that it goes out on.
#include "http/trace.h"

#include <algorithm>
#include <new>
#include <string_view>

namespace qm::http
{
namespace
{

// "Nov 25 23:41:34 2026 GMT" or "2026-11-25 23:41:34 GMT", depending on the library beneath libcurl, whose
// reader of dates takes no dashes.
std::time_t timeOf(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), '-'), text.end());
    return std::max<std::time_t>(curl_getdate(text.c_str(), nullptr), 0);
}

// Of the first certificate, which is the other side's own.
void readCertificate(const curl_certinfo &chain, Trace &trace)
{
    constexpr std::string_view Issuer = "Issuer:";
    constexpr std::string_view Expiry = "Expire date:";
    if (chain.num_of_certs < 1)
        return;
    for (const curl_slist *line = chain.certinfo[0]; line; line = line->next) {
        const std::string_view text = line->data;
        if (text.substr(0, Issuer.size()) == Issuer)
            trace.issuer = text.substr(Issuer.size());
        else if (text.substr(0, Expiry.size()) == Expiry)
            trace.expiry = timeOf(std::string(text.substr(Expiry.size())));
    }
}

} // namespace

void Trace::begin(CURL *easy) noexcept
{
    curl_easy_setopt(easy, CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, problem);
}

void Trace::end(CURL *easy) noexcept
{
    curl_off_t time = 0;
    curl_easy_getinfo(easy, CURLINFO_NAMELOOKUP_TIME_T, &time);
    resolved = time;
    curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &time);
    connected = time;
    curl_easy_getinfo(easy, CURLINFO_APPCONNECT_TIME_T, &time);
    secured = time;
    char *ip = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &ip);
    curl_certinfo *chain = nullptr;
    curl_easy_getinfo(easy, CURLINFO_CERTINFO, &chain);
    try {
        address = ip ? ip : "";
        if (chain)
            readCertificate(*chain, *this);
    } catch (const std::bad_alloc &) {
        // It stays untold.
    }
}

} // namespace qm::http
