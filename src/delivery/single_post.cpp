#include "delivery/single_post.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <string>

#include "base/config.h"
#include "base/fd.h"
#include "base/log.h"
#include "base/pause.h"
#include "delivery/curl_options.h"
#include "delivery/session_cache.h"
#include "delivery/status.h"

namespace rfevent {

namespace {

// Held for a whole call, sleeps included: single POSTs run strictly one at a time.
std::mutex& postLock() {
    static std::mutex lock;
    return lock;
}

// Releases the call's handle, saying so at level 2 on every call, as operators expect.
struct LoggedEasyCleanup {
    void operator()(CURL* curl) const {
        RF_LOG(kLogError, "[%s():%d]calling curl_easy_cleanup\n");
        curl_easy_cleanup(curl);
    }
};

void logCertificateChain(CURL* curl) {
    curl_certinfo* chain = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_CERTINFO, &chain) != CURLE_OK || chain == nullptr) {
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]-------------------------------------------------------");
    RF_LOG(kLogDebug, "[%s():%d]%d certs!\n", chain->num_of_certs);
    for (int i = 0; i < chain->num_of_certs; ++i) {
        for (curl_slist* line = chain->certinfo[i]; line != nullptr; line = line->next) {
            RF_LOG(kLogDebug, "[%s():%d]%s\n", line->data);
        }
    }
    RF_LOG(kLogDebug, "[%s():%d]-------------------------------------------------------");
}

// What one call needs besides the transfer's handle.
struct PostCall {
    const char* uri;
    int attempts;
    PostSettings settings;
    const std::string& subscriptionId;
    RetriesExhausted onExhausted;
};

// Up to attempts transfers; after the last failed one the caller's onExhausted.
DeliveryOutcome attemptDelivery(CURL* curl, const PostCall& call) {
    const int interval = static_cast<int>(call.settings.interval);
    if (call.attempts <= 0) {
        return {}; // a retry count of 0 switches this delivery off
    }
    int count = 0;
    for (;;) {
        CURLcode rc = curl_easy_perform(curl);
        if (rc == CURLE_OK) {
            // Any HTTP answer counts: only transport failures are retried.
            RF_LOG(kLogDebug, "[%s():%d]curl_easy_perform success\n");
            logCertificateChain(curl);
            recordDeliveryOutcome(call.subscriptionId, call.uri, curl, rc);
            return {DeliveryResult::Delivered, CURLE_OK};
        }
        ++count;
        RF_LOG(kLogError, "[%s():%d]curl_easy_perform failed with status %d \n", rc);
        RF_LOG(kLogError, "[%s():%d]curl_easy_perform failed %d time sleeping for%d seconds\n",
               count, interval);
        recordDeliveryOutcome(call.subscriptionId, call.uri, curl, rc);
        flushDeliveryStatus(); // the pause below may outlast the status file's 3 s
        if (interval > 0) {
            pauseSeconds(static_cast<unsigned>(interval));
        }
        if (count == call.attempts) {
            if (call.onExhausted != nullptr) {
                call.onExhausted(call.uri, count);
            }
            return {DeliveryResult::Failed, rc};
        }
        // A retry resumes only sessions made with the credential files as they are now.
        attachSessionCache(curl, call.uri, call.settings.certificateSwitch == VERIFY_CERTIFICATES);
    }
}

// Steps under the POST lock: set-up, the attempts, clean-up (header list, then handle).
DeliveryOutcome postLocked(const char* formData, const Json::Value& subscription,
                           const PostCall& call) {
    std::lock_guard<std::mutex> guard(postLock());
    // Released after the handle: its clean-up may still write to the connection.
    const SigpipeBlocked noSigpipe;
    if (formData == nullptr || call.uri == nullptr) {
        RF_LOG(kLogError, "[%s():%d]formData or URI is NULL:\n");
        return {};
    }
    RF_LOG(kLogDebug, "[%s():%d]formData:%s\n", formData);
    RF_LOG(kLogDebug, "[%s():%d]uri:%s\n", call.uri);
    std::unique_ptr<CURL, LoggedEasyCleanup> curl(curl_easy_init());
    if (curl == nullptr) {
        RF_LOG(kLogError, "[%s():%d]libcurl initialization failed\n");
        return {};
    }
    CurlList headers = buildHeaderList(subscription, kSinglePost);
    if (!setPostOptions(RF_HERE, curl.get(), call.uri, formData, headers.get(), call.settings,
                        kSinglePost)) {
        return {};
    }
    return attemptDelivery(curl.get(), call);
}

} // namespace

DeliveryOutcome sendHTTPPacketByCURL(const char* formData, const char* uri,
                                     const Json::Value& subscription,
                                     const std::string& subscriptionId,
                                     RetriesExhausted onExhausted) {
    RF_ENTER();
    int attempts = getDeliveryRetryAttemptsValue();
    int interval = getDeliveryRetryIntervalSeconds();
    int ignoreSwitch = getIgnoreCertificateErrors();
    RF_LOG(kLogInfo, "[%s():%d]retryAttempts:%d, retryIntervalSec:%d", attempts, interval);
    RF_LOG(kLogInfo, "[%s():%d]isIgnoreCertificateErrors:%d", ignoreSwitch);
    const PostCall call{uri, attempts, {interval, ignoreSwitch}, subscriptionId, onExhausted};
    const DeliveryOutcome outcome = postLocked(formData, subscription, call);
    flushDeliveryStatus(); // after the POST lock is released
    RF_EXIT();
    return outcome;
}

} // namespace rfevent
