#include "delivery/parallel_post.h"

#include <curl/curl.h>
#include <sys/select.h>

#include <cstring>
#include <string>

#include "base/config.h"
#include "base/log.h"
#include "base/paths.h"
#include "delivery/http_headers.h"

using rfevent::kLogDebug;
using rfevent::kLogError;
using rfevent::kLogInfo;

namespace {

// The easy handles and header lists of one pass, one entry per target in vector order. The
// destructor releases them (and the multi handle first), also when a JSON type error escapes.
struct TransferTables {
    CURLM* multi = nullptr;
    CURL* handles[kMaxParallelDestinations] = {};
    curl_slist* headers[kMaxParallelDestinations] = {};
    std::size_t used = 0;

    TransferTables() = default;
    TransferTables(const TransferTables&) = delete;
    TransferTables& operator=(const TransferTables&) = delete;
    ~TransferTables() {
        // The easy handles are released after the multi handle, without detaching them first.
        if (multi != nullptr) {
            curl_multi_cleanup(multi);
        }
        for (std::size_t i = 0; i < used; ++i) {
            if (handles[i] != nullptr) {
                curl_easy_cleanup(handles[i]);
            }
            if (headers[i] != nullptr) {
                curl_slist_free_all(headers[i]);
            }
        }
    }
};

// "Expect:", then the subscription's own headers, then the content type.
curl_slist* buildHeaderList(const Json::Value& subscription) {
    const std::vector<std::string> lines = rfevent::subscriptionHeaderLines(subscription);
    curl_slist* list = curl_slist_append(nullptr, "Expect:");
    for (const std::string& line : lines) {
        list = curl_slist_append(list, line.c_str());
    }
    list = curl_slist_append(list, "Content-Type: application/json");
    return list;
}

// The transfer options of one destination, in a fixed order. False when a fatal option
// failed; the failure is logged here.
bool setTransferOptions(CURL* curl, const char* uri, long interval, int certificateSwitch,
                        curl_slist* headers, const char* body) {
    CURLcode rc = curl_easy_setopt(curl, CURLOPT_URL, uri);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_URL failed %d\n", rc);
        return false;
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    rc = curl_easy_setopt(curl, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS));
#pragma GCC diagnostic pop
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
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_TIMEOUT:Set TimeOutValue Failed :%d", rc);
        return false;
    }
    RF_LOG(kLogDebug, "[%s():%d]libcurl CURLOPT_TIMEOUT success");
    rc = curl_easy_setopt(curl, CURLOPT_POST, 1L);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_POST:1 failed:%d", rc);
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_HTTPHEADER failed:%d", rc);
        return false;
    }
    if (certificateSwitch == VERIFY_CERTIFICATES) {
        const char* caBundle = rfevent::fixedPath(rfevent::FixedPath::ServerCaBundle);
        RF_LOG(kLogError, "[%s():%d]CURLOPT_CAINFO:%s", caBundle);
        rc = curl_easy_setopt(curl, CURLOPT_CAINFO, caBundle);
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
    } else {
        // Checking off (also when the setting is missing or invalid): failures are not fatal.
        rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        if (rc != CURLE_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYPEER failed:%d", rc);
        }
        rc = curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        if (rc != CURLE_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_SSL_VERIFYHOST failed:%d", rc);
        }
    }
    rc = curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    if (rc != CURLE_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl CURLOPT_POSTFIELDS failed:%d\n", rc);
        return false;
    }
    return true;
}

// Prepares every transfer and adds it to the multi handle. False when one of them failed:
// the pass is then abandoned for every destination.
bool prepareTransfers(TransferTables& tables, const char* body,
                      std::vector<DeliveryTarget*>& targets, long interval, int certificateSwitch) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const DeliveryTarget* target = targets[i];
        const std::string uri = target->destination != nullptr ? target->destination : "";
        RF_LOG(kLogInfo, "[%s():%d]uri = %s\n", uri.c_str());
        tables.handles[i] = curl_easy_init();
        tables.used = i + 1;
        if (tables.handles[i] == nullptr) {
            RF_LOG(kLogError, "[%s():%d]libcurl initialization failed\n");
            return false;
        }
        const Json::Value noSubscription;
        tables.headers[i] = buildHeaderList(target->subscription != nullptr ? *target->subscription
                                                                            : noSubscription);
        if (!setTransferOptions(tables.handles[i], uri.c_str(), interval, certificateSwitch,
                                tables.headers[i], body)) {
            return false;
        }
        CURLMcode added = curl_multi_add_handle(tables.multi, tables.handles[i]);
        if (added != CURLM_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_perform failed:%d:: %s ", added,
                   curl_multi_strerror(added));
            return false;
        }
    }
    return true;
}

// The wait before the next poll: libcurl's own time-out when it has one, at most about a second.
timeval pollWait(CURLM* multi) {
    timeval wait = {};
    wait.tv_sec = 1;
    long curlTimeout = -1;
    curl_multi_timeout(multi, &curlTimeout);
    if (curlTimeout >= 0) {
        wait.tv_sec = curlTimeout / 1000;
        if (wait.tv_sec > 1) {
            wait.tv_sec = 1;
        } else {
            wait.tv_usec = (curlTimeout % 1000) * 1000;
        }
    }
    return wait;
}

// Drives the transfers until none is running. False when the first perform failed.
bool runTransfers(CURLM* multi) {
    int stillRunning = 0;
    CURLMcode rc = curl_multi_perform(multi, &stillRunning);
    if (rc != CURLM_OK) {
        RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_perform failed:%d:: %s ", rc,
               curl_multi_strerror(rc));
        return false;
    }
    RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_perform success still_running :%d",
           stillRunning);
    while (stillRunning != 0) {
        RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_perform success still_running :%d",
               stillRunning);
        fd_set readSet;
        fd_set writeSet;
        fd_set errorSet;
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        FD_ZERO(&errorSet);
        timeval wait = pollWait(multi);
        int maxFd = -1;
        rc = curl_multi_fdset(multi, &readSet, &writeSet, &errorSet, &maxFd);
        if (rc != CURLM_OK) {
            RF_LOG(kLogError, "[%s():%d]curl_multi_fdset() failed, code %d.\n", rc);
            break;
        }
        int selected = 0;
        if (maxFd == -1) {
            timeval shortWait = {0, 100000};
            selected = select(0, nullptr, nullptr, nullptr, &shortWait);
        } else {
            selected = select(maxFd + 1, &readSet, &writeSet, &errorSet, &wait);
        }
        if (selected == -1) {
            RF_LOG(kLogError, "[%s():%d]select fd error");
            continue;
        }
        curl_multi_perform(multi, &stillRunning);
    }
    return true;
}

// Counts a failure for every finished transfer that ended with an error.
void collectResults(CURLM* multi, std::vector<DeliveryTarget*>& targets) {
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        char* effectiveUrl = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
        const char* url = effectiveUrl != nullptr ? effectiveUrl : "";
        RF_LOG(kLogError, "[%s():%d] sent message status: %d", message->data.result);
        RF_LOG(kLogError, "[%s():%d] sent message url: %s", url);
        if (message->data.result != CURLE_OK) {
            RF_LOG(kLogError, "[%s():%d]update retry count");
            countDeliveryFailure(targets, url);
        }
    }
}

// One pass over at most 30 targets; every handle is released when it returns.
void runPass(const char* body, std::vector<DeliveryTarget*>& targets, long interval,
             int certificateSwitch) {
    TransferTables tables;
    tables.multi = curl_multi_init();
    if (tables.multi == nullptr) {
        RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_init failed");
        return;
    }
    if (prepareTransfers(tables, body, targets, interval, certificateSwitch) &&
        runTransfers(tables.multi)) {
        collectResults(tables.multi, targets);
    }
}

} // namespace

void sendMultiperform(const char* body, std::vector<DeliveryTarget*>& targets) {
    RF_ENTER();
    const int attempts = getDeliveryRetryAttemptsValue();
    const int interval = getDeliveryRetryIntervalSeconds();
    const int certificateSwitch = getIgnoreCertificateErrors();
    RF_LOG(kLogInfo, "[%s():%d]retryAttempts:%d, retryIntervalSec:%d", attempts, interval);
    RF_LOG(kLogInfo, "[%s():%d]isIgnoreCertificateErrors:%d", certificateSwitch);
    RF_LOG(kLogInfo, "[%s():%d]Event Destination count = %d", static_cast<int>(targets.size()));
    if (targets.size() > static_cast<std::size_t>(kMaxParallelDestinations)) {
        // The tables hold 30 transfers; callers split larger sets into several passes.
        RF_LOG(kLogError, "[%s():%d]Too many destinations for one pass: %d",
               static_cast<int>(targets.size()));
    } else {
        runPass(body, targets, interval, certificateSwitch);
    }
    RF_EXIT();
}

void countDeliveryFailure(std::vector<DeliveryTarget*>& targets, const char* url) {
    if (url == nullptr) {
        return;
    }
    const std::size_t length = std::strlen(url);
    for (DeliveryTarget* target : targets) {
        if (target == nullptr || target->destination == nullptr) {
            continue;
        }
        if (std::strncmp(target->destination, url, length) == 0 &&
            std::strlen(target->destination) == length) {
            target->failureCount++;
            return;
        }
    }
}
