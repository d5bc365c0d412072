#include "best_client.h"

#include <stdexcept>

#include "base/paths.h"
#include "harness/sandbox.h"
#include "plain_post.h"

namespace rfevent::bench {

namespace {

curl_blob blobOf(const std::string& text) {
    // The texts live as long as the client: libcurl need not copy them for every POST.
    return {const_cast<char*>(text.data()), text.size(), CURL_BLOB_NOCOPY};
}

} // namespace

BestClient::BestClient()
    : certificate_(testkit::readFile(fixedPath(FixedPath::ClientCertificate))),
      key_(testkit::readFile(fixedPath(FixedPath::ClientKey))),
      caBundle_(testkit::readFile(fixedPath(FixedPath::ServerCaBundle))),
      share_(curl_share_init()) {
    if (certificate_.empty() || key_.empty() || caBundle_.empty() || share_ == nullptr ||
        curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        curl_share_cleanup(share_);
        throw std::runtime_error("best client: no credentials or no share handle");
    }
}

BestClient::~BestClient() {
    curl_share_cleanup(share_);
}

CURL* BestClient::postHandle(const std::string& url, const std::string& body,
                             curl_slist* headers) const {
    CURL* curl = plainPostHandle(url, body, headers);
    curl_blob certificate = blobOf(certificate_);
    curl_blob key = blobOf(key_);
    curl_blob caBundle = blobOf(caBundle_);
    curl_easy_setopt(curl, CURLOPT_SSLCERT_BLOB, &certificate);
    curl_easy_setopt(curl, CURLOPT_SSLKEY_BLOB, &key);
    curl_easy_setopt(curl, CURLOPT_CAINFO_BLOB, &caBundle);
    curl_easy_setopt(curl, CURLOPT_SHARE, share_);
    return curl;
}

void BestClient::postEach(const std::vector<std::pair<std::string, std::string>>& posts,
                          curl_slist* headers) const {
    for (const auto& post : posts) {
        CURL* curl = postHandle(post.first, post.second, headers);
        // As every single POST, it asks for the destination's certificate chain.
        curl_easy_setopt(curl, CURLOPT_CERTINFO, 1L);
        const CURLcode result = curl_easy_perform(curl);
        curl_easy_cleanup(curl);
        if (result != CURLE_OK) {
            throw std::runtime_error("best client POST to " + post.first +
                                     " failed: " + curl_easy_strerror(result));
        }
    }
}

void BestClient::postParallel(const std::vector<std::string>& urls, const std::string& body,
                              curl_slist* headers) const {
    CURLM* multi = curl_multi_init();
    std::vector<CURL*> handles;
    handles.reserve(urls.size());
    for (const std::string& url : urls) {
        handles.push_back(postHandle(url, body, headers));
        curl_multi_add_handle(multi, handles.back());
    }
    int running = 1;
    while (running != 0) {
        curl_multi_perform(multi, &running);
        if (running != 0) {
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    CURLcode failure = CURLE_OK;
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg == CURLMSG_DONE && message->data.result != CURLE_OK) {
            failure = message->data.result;
        }
    }
    for (CURL* curl : handles) {
        curl_multi_remove_handle(multi, curl);
        curl_easy_cleanup(curl);
    }
    curl_multi_cleanup(multi);
    if (failure != CURLE_OK) {
        throw std::runtime_error(std::string("best client multi pass: a transfer failed: ") +
                                 curl_easy_strerror(failure));
    }
}

} // namespace rfevent::bench
