// The best client for the same POSTs: what a caller that owns its process and keeps state
// between deliveries would do. One share handle holds the TLS sessions, so handshakes resume;
// the client certificate, its key and the CA bundle are read once and handed to every
// connection from memory. Every POST is still a transfer of its own on a fresh connection,
// presenting the client certificate and checking the destination against the CA bundle.
#ifndef RFEVENT_BENCH_BEST_CLIENT_H
#define RFEVENT_BENCH_BEST_CLIENT_H

#include <curl/curl.h>

#include <string>
#include <vector>

namespace rfevent::bench {

class BestClient {
  public:
    // Reads the three credential files of the sandbox; throws when one cannot be read.
    BestClient();
    ~BestClient();
    BestClient(const BestClient&) = delete;
    BestClient& operator=(const BestClient&) = delete;

    // A POST of body (not copied) to url with the plain client's options, the credentials
    // from memory and the shared sessions. The caller cleans it up.
    CURL* postHandle(const std::string& url, const std::string& body, curl_slist* headers) const;

    // One POST after the other, as the alert path sends them.
    void postEach(const std::vector<std::pair<std::string, std::string>>& posts,
                  curl_slist* headers) const;
    // One multi pass of body to every url, as the report path sends them.
    void postParallel(const std::vector<std::string>& urls, const std::string& body,
                      curl_slist* headers) const;

  private:
    std::string certificate_;
    std::string key_;
    std::string caBundle_;
    CURLSH* share_ = nullptr;
};

} // namespace rfevent::bench

#endif
