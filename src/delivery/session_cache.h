// The process-wide cache of TLS sessions that every HTTPS POST of the plug-in resumes from:
// the single POST and its retries, the invalid-destination threads and the parallel pass.
#ifndef RFEVENT_DELIVERY_SESSION_CACHE_H
#define RFEVENT_DELIVERY_SESSION_CACHE_H

#include <curl/curl.h>

namespace rfevent {

// Creates the cache; at load, after curl_global_init. When it cannot be created, every POST
// makes a full handshake, as it would without the cache.
void createSessionCache();

// Releases the cache; at unload, before curl_global_cleanup, and only when no POST can run any
// more (no worker thread was ever started).
void releaseSessionCache();

// Lets the next transfer of curl resume a session of the cache and store the one it makes.
// libcurl resumes a session only for the same host, port and TLS options; sessions made while
// the client certificate, its key or the CA bundle had other contents are dropped first, so a
// replaced file is never hidden behind a resumed session. Without a cache, curl is left alone.
void attachSessionCache(CURL* curl);

} // namespace rfevent

#endif
