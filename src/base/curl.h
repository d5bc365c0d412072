// Owned libcurl handles.
#ifndef RFEVENT_BASE_CURL_H
#define RFEVENT_BASE_CURL_H

#include <curl/curl.h>

#include "base/owned.h"

namespace rfevent {

using CurlEasy = Owned<CURL, curl_easy_cleanup>;
using CurlMulti = Owned<CURLM, curl_multi_cleanup>;
using CurlList = Owned<curl_slist, curl_slist_free_all>;
using CurlUrl = Owned<CURLU, curl_url_cleanup>;

// Appends line to list; on an allocation failure the list stays as it was and is still owned.
inline void appendLine(CurlList& list, const char* line) {
    if (curl_slist* longer = curl_slist_append(list.get(), line)) {
        (void)list.release();
        list.reset(longer);
    }
}

} // namespace rfevent

#endif
