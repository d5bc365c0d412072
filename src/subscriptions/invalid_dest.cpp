#include "subscriptions/invalid_dest.h"
#include "subscriptions/invalid_dest_internal.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/guard.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/pause.h"
#include "base/run_flags.h"
#include "delivery/status.h"
#include "delivery/target.h"
#include "subscriptions/delivery_failure.h"
#include "subscriptions/store.h"

namespace rfevent {

namespace {

constexpr unsigned kDrainPeriodSeconds = 2;
constexpr unsigned kProbePeriodSeconds = 60;

// Takes the front record and the first queued name under the mutex; none when the queue is
// empty.
std::optional<InvalidDestinationRecord> takeFront() {
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    if (queue.records.empty()) {
        return std::nullopt;
    }
    std::optional<InvalidDestinationRecord> record(std::move(queue.records.front()));
    queue.records.pop_front();
    if (!queue.names.empty()) {
        queue.names.erase(queue.names.begin());
    }
    queue.recordCount.store(queue.records.size(), std::memory_order_relaxed);
    return record;
}

void resend(const InvalidDestinationRecord& record) {
    RF_LOG(kLogDebug, "[%s():%d]Retry mechanism on dest :%s", record.destination.c_str());
    const DeliveryOutcome outcome =
        postToSubscriber(record.report.c_str(), record.destination.c_str(), record.subscription,
                         record.subscriptionId);
    if (outcome.failed()) {
        applyPolicyOrTag(record.destination, record.subscriptionId, record.retryPolicy);
    }
    // A success changes nothing: an "InvalidDestination" tag is left to the probing thread.
}

// Probes one tagged subscription; on an answer the tag is removed and the store re-written.
void probeSubscription(Json::Value& document, const std::string& id) {
    Json::Value subscription = document[id];
    const std::string destination = subscription["Destination"].asString();
    RF_LOG(kLogDebug, "[%s():%d]Subscription with invalid destination found : %s",
           destination.c_str());
    const bool failed =
        postToSubscriber(g_invalidDestinationProbeReport, destination.c_str(), subscription, id)
            .failed();
    RF_LOG(kLogDebug, "[%s():%d]bSuspendSubscription : %d", failed ? 1 : 0);
    if (failed) {
        return; // probed again next cycle; this thread never applies the policy
    }
    RF_LOG(kLogInfo, "[%s():%d]Destination %s is reachable now. Removing InvalidDestination tag",
           destination.c_str());
    subscription.removeMember("InvalidDestination");
    document[id] = subscription;
    writeSubscriptionStore(document);
}

const JsonFileTexts kProbedStore = {kLogDebug, "Subscription file does not exist\n",
                                    "Subscription file exists\n",
                                    "Fail to parse event subscription file\n", nullptr};

} // namespace

const char* g_invalidDestinationProbeReport =
    "{\"MetricReportName\":\"TestReport\",\"GeneratedMetricReportValues\":[{\"MetricId\":"
    "\"TestMetricId\",\"MetricValue\":\"0\",\"Timestamp\":\"0000-00-00T00:00:00\"}]}";

namespace {

// The queue is released at unload, unless worker threads were started: they are never stopped,
// so from then on the queue must stay until the process ends.
struct QueueOwner {
    InvalidDestinationQueue* queue = new InvalidDestinationQueue;
    ~QueueOwner() {
        if (g_workersStarted.load(std::memory_order_relaxed)) {
            return;
        }
        for (const InvalidDestinationRecord& record : queue->records) {
            logRecordRelease(RF_HERE, record.subscription);
        }
        delete queue;
    }
};

} // namespace

InvalidDestinationQueue& invalidDestinationQueue() {
    static QueueOwner owner;
    return *owner.queue;
}

// Build the queue at load rather than on first use.
[[maybe_unused]] static InvalidDestinationQueue& g_queueAtLoad = invalidDestinationQueue();

// The emptiness test of the consumer and the length test of the producers are made without the
// mutex on purpose: they are only hints, and the work itself is always done under the mutex.
// Reading records.size() directly while another thread pushes or pops would be a data race on
// the deque's internals, so the size is mirrored in an atomic that every change refreshes under
// the mutex; a relaxed load of it gives the same answers an unlocked read would, without the
// race.
std::size_t queuedRecordCount() {
    return invalidDestinationQueue().recordCount.load(std::memory_order_relaxed);
}

bool invalidQueueAlreadyHolds(const std::string& destination) {
    if (queuedRecordCount() <= kInvalidQueueDuplicateThreshold) {
        return false;
    }
    // Scanning the names can not be done safely while the consumer erases from the vector, so
    // the mutex is held for the scan only. The test and the later push are still two steps:
    // another producer may queue the same destination in between, as before.
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    return std::find(queue.names.begin(), queue.names.end(), destination) != queue.names.end();
}

void pushInvalidDestination(InvalidDestinationRecord record) {
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    std::string name = record.destination;
    queue.records.push_back(std::move(record));
    queue.names.push_back(std::move(name));
    queue.recordCount.store(queue.records.size(), std::memory_order_relaxed);
}

void drainInvalidDestinationQueueOnce() {
    while (queuedRecordCount() != 0) {
        std::optional<InvalidDestinationRecord> record = takeFront();
        if (!record) {
            break;
        }
        guarded(RF_HERE, "Re-send dropped", [&record] { resend(*record); });
        logRecordRelease(RF_HERE, record->subscription); // the record is released right after
    }
}

ProbeCycle probeInvalidDestinationsOnce() {
    Json::Value document;
    if (!loadJsonObject(RF_HERE, fixedPath(FixedPath::SubscriptionStore), kProbedStore, document)) {
        return ProbeCycle::End;
    }
    for (const std::string& id : document.getMemberNames()) {
        guarded(RF_HERE, "Probe dropped", [&] {
            if (document[id].isObject() && document[id].isMember("InvalidDestination")) {
                probeSubscription(document, id);
            }
        });
    }
    return ProbeCycle::Continue;
}

void* InvalidDestHandlingThread1(void* unused) {
    (void)unused;
    for (;;) {
        rfevent::pauseSeconds(rfevent::kDrainPeriodSeconds);
        rfevent::flushDeliveryStatus(); // a pending status change reaches the file within 3 s
        if (rfevent::queuedRecordCount() == 0) {
            continue;
        }
        rfevent::guarded(RF_HERE, "Queue pass dropped",
                         [] { rfevent::drainInvalidDestinationQueueOnce(); });
    }
    return nullptr;
}

void* InvalidDestHandlingThread2(void* unused) {
    (void)unused;
    for (;;) {
        ProbeCycle cycle = ProbeCycle::Continue;
        rfevent::guarded(RF_HERE, "Probe cycle dropped",
                         [&cycle] { cycle = rfevent::probeInvalidDestinationsOnce(); });
        if (cycle == ProbeCycle::End) {
            return nullptr;
        }
        rfevent::pauseSeconds(rfevent::kProbePeriodSeconds);
    }
}

} // namespace rfevent
