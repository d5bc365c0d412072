#include "delivery/single_post.h"

#define CURL_DISABLE_DEPRECATION // CURLOPT_PROTOCOLS takes the protocol bit mask we need
#include <curl/curl.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>

#include "base/config.h"
#include "base/log.h"
#include "base/paths.h"
#include "delivery/http_headers.h"
#include "delivery/jxlog.h"

using rfevent::kLogDebug;
using rfevent::kLogError;
using rfevent::kLogInfo;

namespace {

// Held for a whole call, sleeps included: single POSTs run strictly one at a time.
std::mutex& postLock() {
    static std::mutex lock;
    return lock;
}

struct HeaderListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListFree>;

// The easy handle of one call; released on every way out, a thrown exception included.
struct EasyHandle {
    CURL* curl = curl_easy_init();
    EasyHandle() = default;
    EasyHandle(const EasyHandle&) = delete;
    EasyHandle& operator=(const EasyHandle&) = delete;
    ~EasyHandle() {
        if (curl != nullptr) {
            RF_LOG(kLogError, "[%s():%d]calling curl_easy_cleanup\n");
            curl_easy_cleanup(curl);
        }
    }
};

void appendHeader(HeaderList& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer != nullptr) {
        (void)list.release();
        list.reset(longer);
    }
}

// The subscription's own headers, then the content type.
HeaderList buildHeaderList(const Json::Value& subscription) {
    HeaderList list;
    for (const std::string& line : rfevent::subscriptionHeaderLines(subscription)) {
        appendHeader(list, line);
    }
    RF_LOG(kLogDebug, "[%s():%d]End Of For Loop");
    appendHeader(list, "Content-Type: application/json");
    return list;
}

// Options 1-8 in their fixed order; false (already logged) when one is refused.
bool setTransferOptions(CURL* curl, const char* uri, long interval, curl_slist* headers) {
    CURLcode rc = curl_easy_setopt(curl, CURLOPT_URL, uri);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_URL failed %d\n", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS));
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_PROTOCOLS:CURLPROTO_HTTPS failed:%d\n", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, interval);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_CONNECTTIMEOUT: failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_TIMEOUT, interval);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_TIMEOUT:Set TimeOutValue Failed :%d\n", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_POST, 1L);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_POST:1 failed:%d\n", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_HTTPHEADER failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_SSLCERT,
                          rfevent::fixedPath(rfevent::FixedPath::ClientCertificate));
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSLCERT  failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_SSLKEY, rfevent::fixedPath(rfevent::FixedPath::ClientKey));
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSLKEY failed:%d", rc);
        return false;
    }
    return true;
}

// Switch 0 verifies the destination against the CA bundle; any other value does not.
bool setCertificateChecking(CURL* curl, int ignoreSwitch) {
    if (ignoreSwitch != VERIFY_CERTIFICATES) {
        CURLcode rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        if (rc != CURLE_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYPEER failed:%d", rc);
        }
        rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        if (rc != CURLE_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYHOST failed:%d", rc);
        }
        return true;
    }
    CURLcode rc = curl_easy_setopt(curl, CURLOPT_CAINFO,
                                   rfevent::fixedPath(rfevent::FixedPath::ServerCaBundle));
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_CAINFO failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYPEER failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYHOST failed:%d", rc);
        return false;
    }
    (void)curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    (void)curl_easy_setopt(curl, CURLOPT_CERTINFO, 1L);
    return true;
}

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

// Up to attempts transfers; after the last failed one the event-log entry and the flag.
void attemptDelivery(CURL* curl, const char* uri, int attempts, int interval, bool* failed) {
    if (attempts <= 0) {
        return; // a retry count of 0 switches this delivery off
    }
    int count = 0;
    for (;;) {
        CURLcode rc = curl_easy_perform(curl);
        if (rc == CURLE_OK) {
            // Any HTTP answer counts: only transport failures are retried.
            RF_LOG(kLogDebug, "[%s():%d]curl_easy_perform success\n");
            logCertificateChain(curl);
            return;
        }
        ++count;
        RF_LOG(kLogError, "[%s():%d]curl_easy_perform failed with status %d \n", rc);
        RF_LOG(kLogError, "[%s():%d]curl_easy_perform failed %d time sleeping for%d seconds\n",
               count, interval);
        if (interval > 0) {
            ::sleep(static_cast<unsigned>(interval));
        }
        if (count == attempts) {
            RF_LOG(kLogDebug, "[%s():%d]retried for %d times so write JX Log \n", count);
            int status = SubmitJXLog("JX083", 1, uri);
            RF_LOG(kLogDebug, "[%s():%d]SubmitJXLog returned with status:%d \n", status);
            *failed = true;
            return;
        }
    }
}

// Steps under the POST lock: set-up, the attempts, clean-up (header list, then handle).
void postLocked(const char* formData, const char* uri, const Json::Value& subscription,
                int attempts, int interval, int ignoreSwitch, bool* failed) {
    std::lock_guard<std::mutex> guard(postLock());
    if (formData == nullptr || uri == nullptr) {
        RF_LOG(kLogError, "[%s():%d]formData or URI is NULL:\n");
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]formData:%s\n", formData);
    RF_LOG(kLogDebug, "[%s():%d]uri:%s\n", uri);
    EasyHandle handle;
    if (handle.curl == nullptr) {
        RF_LOG(kLogError, "[%s():%d]libcurl initialization failed\n");
        return;
    }
    HeaderList headers = buildHeaderList(subscription);
    if (!setTransferOptions(handle.curl, uri, interval, headers.get()) ||
        !setCertificateChecking(handle.curl, ignoreSwitch)) {
        return;
    }
    CURLcode rc = curl_easy_setopt(handle.curl, CURLOPT_POSTFIELDS, formData);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_POSTFIELDS failed:%d\n", rc);
        return;
    }
    attemptDelivery(handle.curl, uri, attempts, interval, failed);
}

} // namespace

void sendHTTPPacketByCURL(const char* formData, const char* uri, const Json::Value& subscription,
                          bool* failed) {
    RF_ENTER();
    *failed = false;
    int attempts = getDeliveryRetryAttemptsValue();
    int interval = getDeliveryRetryIntervalSeconds();
    int ignoreSwitch = getIgnoreCertificateErrors();
    RF_LOG(kLogInfo, "[%s():%d]retryAttempts:%d, retryIntervalSec:%d", attempts, interval);
    RF_LOG(kLogInfo, "[%s():%d]isIgnoreCertificateErrors:%d", ignoreSwitch);
    postLocked(formData, uri, subscription, attempts, interval, ignoreSwitch, failed);
    RF_EXIT();
}
