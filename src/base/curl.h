// Owned libcurl handles.
#ifndef RFEVENT_BASE_CURL_H
#define RFEVENT_BASE_CURL_H

#include <curl/curl.h>

#include <memory>

namespace rfevent {

struct CurlEasyCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct CurlMultiCleanup {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct CurlUrlCleanup {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

using CurlEasy = std::unique_ptr<CURL, CurlEasyCleanup>;
using CurlMulti = std::unique_ptr<CURLM, CurlMultiCleanup>;
using CurlList = std::unique_ptr<curl_slist, CurlListFree>;
using CurlUrl = std::unique_ptr<CURLU, CurlUrlCleanup>;

// Appends line to list; on an allocation failure the list stays as it was and is still owned.
inline void appendLine(CurlList& list, const char* line) {
    if (curl_slist* longer = curl_slist_append(list.get(), line)) {
        (void)list.release();
        list.reset(longer);
    }
}

} // namespace rfevent

#endif
