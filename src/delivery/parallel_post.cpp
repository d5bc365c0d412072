#include "delivery/parallel_post.h"
#include "delivery/parallel_post_internal.h"

#include <curl/curl.h>
#include <errno.h>
#include <sys/select.h>

#include <cstring>
#include <string>

#include "base/config.h"
#include "base/fd.h"
#include "base/log.h"
#include "delivery/curl_options.h"
#include "delivery/status.h"

namespace rfevent {

namespace {

// The easy handles and header lists of one pass, one entry per target in vector order. The
// multi handle, declared last, is released first, without detaching the easy handles.
struct TransferTables {
    rfevent::CurlEasy handles[kMaxParallelDestinations];
    rfevent::CurlList headers[kMaxParallelDestinations];
    rfevent::CurlMulti multi{curl_multi_init()};
};

// Prepares every transfer and adds it to the multi handle. False when one of them failed:
// the pass is then abandoned for every destination.
bool prepareTransfers(TransferTables& tables, const char* body,
                      const std::vector<DeliveryTarget>& targets, const PostSettings& settings) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const std::string& uri = targets[i].destination;
        RF_LOG(kLogInfo, "[%s():%d]uri = %s\n", uri.c_str());
        tables.handles[i].reset(curl_easy_init());
        if (tables.handles[i] == nullptr) {
            RF_LOG(kLogError, "[%s():%d]libcurl initialization failed\n");
            return false;
        }
        tables.headers[i] = buildHeaderList(targets[i].subscription, kParallelPost);
        if (!setPostOptions(RF_HERE, tables.handles[i].get(), uri.c_str(), body,
                            tables.headers[i].get(), settings, kParallelPost)) {
            return false;
        }
        CURLMcode added = curl_multi_add_handle(tables.multi.get(), tables.handles[i].get());
        if (added != CURLM_OK) {
            RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_perform failed:%d:: %s ", added,
                   curl_multi_strerror(added));
            return false;
        }
    }
    return true;
}

// A URL as libcurl writes it back after parsing it, the way a transfer's effective URL reads
// (a destination without a path gets "/"); the text itself when libcurl cannot parse it.
std::string normalisedUrl(const char* url) {
    CurlUrl handle(curl_url());
    if (handle == nullptr || curl_url_set(handle.get(), CURLUPART_URL, url, 0) != CURLUE_OK) {
        return url;
    }
    char* text = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_URL, &text, 0) != CURLUE_OK || text == nullptr) {
        return url;
    }
    std::string normalised = text;
    curl_free(text);
    return normalised;
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
            if (errno != EINTR) { // a signal of the host only ends this wait early
                RF_LOG(kLogError, "[%s():%d]select fd error");
            }
            continue;
        }
        curl_multi_perform(multi, &stillRunning);
    }
    return true;
}

// The target whose transfer ran on handle, or null.
const DeliveryTarget* targetOf(const TransferTables& tables,
                               const std::vector<DeliveryTarget>& targets, CURL* handle) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (tables.handles[i].get() == handle) {
            return &targets[i];
        }
    }
    return nullptr;
}

// Counts a failure for every finished transfer that ended with an error.
void collectResults(const TransferTables& tables, std::vector<DeliveryTarget>& targets) {
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(tables.multi.get(), &queued)) {
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
            countDeliveryFailure(targets, url, message->data.result);
        }
        if (const DeliveryTarget* target = targetOf(tables, targets, message->easy_handle)) {
            recordDeliveryOutcome(target->subscriptionId, target->destination.c_str(),
                                  message->easy_handle, message->data.result);
        }
    }
}

// One pass over at most 30 targets; every handle is released when it returns.
void runPass(const char* body, std::vector<DeliveryTarget>& targets, const PostSettings& settings) {
    // Released after the tables: their clean-up may still write to the connections.
    const SigpipeBlocked noSigpipe;
    TransferTables tables;
    if (tables.multi == nullptr) {
        RF_LOG(kLogError, "[%s():%d]libcurl curl_multi_init failed");
        return;
    }
    if (prepareTransfers(tables, body, targets, settings) && runTransfers(tables.multi.get())) {
        collectResults(tables, targets);
    }
}

} // namespace

void sendMultiperform(const char* body, std::vector<DeliveryTarget>& targets) {
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
        runPass(body, targets, {interval, certificateSwitch});
        flushDeliveryStatus();
    }
    RF_EXIT();
}

void countDeliveryFailure(std::vector<DeliveryTarget>& targets, const char* url, CURLcode result) {
    if (url == nullptr) {
        return;
    }
    const std::string effective = normalisedUrl(url);
    for (DeliveryTarget& target : targets) {
        if (normalisedUrl(target.destination.c_str()) == effective) {
            target.failureCount++;
            target.lastFailure = result;
            return;
        }
    }
}

} // namespace rfevent
