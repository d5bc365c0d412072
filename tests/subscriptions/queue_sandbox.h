// Shared by the invalid-destination and report-delivery tests: the test PKI, an emptied
// invalid-destination queue, and a fresh sandbox with client credentials and delivery settings.
#ifndef RFEVENT_TESTS_SUBSCRIPTIONS_QUEUE_SANDBOX_H
#define RFEVENT_TESTS_SUBSCRIPTIONS_QUEUE_SANDBOX_H

#include <atomic>
#include <mutex>

#include "harness/certs.h"
#include "harness/sandbox.h"
#include "subscriptions/invalid_dest_internal.h"

using namespace rfevent;

namespace rfevent::testkit {

inline TestPki pki() {
    return generateTestPki(rooted("/pki"));
}

// Tests normally run one per process; when several share one, the queue starts empty anyway.
inline void clearQueue() {
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    queue.records.clear();
    queue.names.clear();
    queue.recordCount.store(0, std::memory_order_relaxed);
}

// A fresh sandbox and an empty queue; certificate checking on.
inline void prepareQueueSandbox(int attempts, int intervalSeconds) {
    resetSandbox();
    clearQueue();
    installClientCredentials(pki(), sandboxRoot());
    writeDeliveryAttributes(attempts, intervalSeconds, "No");
}

} // namespace rfevent::testkit

#endif
