// The process-wide cache of TLS sessions that every HTTPS POST of the plug-in resumes from (the
// single POST and its retries, the invalid-destination threads and the parallel pass), and of
// the parsed credentials those sessions were made with.
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

// Lets the next transfer of curl (to uri) resume a session of the cache and store the one it
// makes, and
// hands it the client certificate, its key and (checking: the destination is verified) the CA
// bundle already parsed, when their files still hold what was parsed. The files are read anew
// on every call. libcurl resumes a session only for the same host, port and TLS options;
// sessions made while the files had other contents are dropped first, so a replaced file is
// never hidden behind a resumed session. Without the cache, or when the parsed credentials
// cannot stand in for the files, the transfer loads the files itself as setPostOptions set it
// up, and libcurl reports any problem with them exactly as it always has.
void attachSessionCache(CURL* curl, const char* uri, bool checking);

} // namespace rfevent

#endif
