// libcurl, initialised once a process before its first use.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace velkor::NS::detail {

/// Any thread, as often as wanted.
void initializeCurl();

struct CurlDeleter {
    void operator()(CURL* easy) const noexcept { curl_easy_cleanup(easy); }
    void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
    void operator()(char* text) const noexcept { curl_free(text); }
};
using CurlEasy = std::unique_ptr<CURL, CurlDeleter>;
using CurlURL = std::unique_ptr<CURLU, CurlDeleter>;
using CurlList = std::unique_ptr<curl_slist, CurlDeleter>;
using CurlText = std::unique_ptr<char, CurlDeleter>;

}  // namespace velkor::NS::detail
