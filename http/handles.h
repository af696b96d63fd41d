// Handles of libcurl that clean up after themselves.
#pragma once

#include <curl/curl.h>
#include <memory>

namespace qm::http
{

template <auto cleanUp>
struct CurlDeleter {
    template <typename Handle>
    void operator()(Handle *handle) const
    {
        cleanUp(handle);
    }
};
using EasyHandle = std::unique_ptr<CURL, CurlDeleter<curl_easy_cleanup>>;
using MultiHandle = std::unique_ptr<CURLM, CurlDeleter<curl_multi_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, CurlDeleter<curl_slist_free_all>>;
using UrlHandle = std::unique_ptr<CURLU, CurlDeleter<curl_url_cleanup>>;
using UrlText = std::unique_ptr<char, CurlDeleter<curl_free>>;

} // namespace qm::http
