// The one place that sets up a POST transfer, for the single and the parallel POST alike.
#ifndef RFEVENT_DELIVERY_CURL_OPTIONS_H
#define RFEVENT_DELIVERY_CURL_OPTIONS_H

#include <curl/curl.h>

#include <json/json.h>

#include "base/curl.h"
#include "base/log.h"

namespace rfevent {

// The settings of one delivery, read from the configuration once per call.
struct PostSettings {
    long interval;         // seconds: connection and total time-out
    int certificateSwitch; // VERIFY_CERTIFICATES checks the destination against the CA bundle
};

// Where the two POSTs differ in what they log and ask of libcurl.
struct PostFlavour {
    const char* extraFirstHeader; // "Expect:" for the parallel POST, else null
    bool logEndOfHeaders;         // "End Of For Loop" after the subscription's headers
    const char* refusalTail;      // ends the CURLOPT_TIMEOUT and CURLOPT_POST refusals
    bool logTimeoutSuccess;       // "libcurl CURLOPT_TIMEOUT success"
    bool logCaBundle;             // "CURLOPT_CAINFO:<path>" at level 2 before it is set
    bool certificateInfo;         // ask for the server's certificate chain, to log it
};

extern const PostFlavour kSinglePost;
extern const PostFlavour kParallelPost;

// The request headers: the flavour's first header, the subscription's "HttpHeaders", then
// "Content-Type: application/json". Raises the JSON library's type error for malformed
// elements.
CurlList buildHeaderList(const Json::Value& subscription, const PostFlavour& flavour);

// Sets every option of one POST of body to uri, in a fixed order, logging under spot, and
// attaches the TLS session cache. False when a fatal option was refused (already logged): the
// transfer must not run.
bool setPostOptions(SourceSpot spot, CURL* curl, const char* uri, const char* body,
                    curl_slist* headers, const PostSettings& settings, const PostFlavour& flavour);

} // namespace rfevent

#endif
