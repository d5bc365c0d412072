// The floor's libcurl handle: the options every plug-in POST sets, and nothing else.
#ifndef RFEVENT_BENCH_PLAIN_POST_H
#define RFEVENT_BENCH_PLAIN_POST_H

#include <curl/curl.h>

#include <string>

namespace rfevent::bench {

// A POST of body (not copied) to url over HTTPS only, with 5 s time-outs and the given
// header list.
inline CURL* plainPostHandle(const std::string& url, const std::string& body, curl_slist* headers) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    return curl;
}

} // namespace rfevent::bench

#endif
