// Inside the invalid-destination queue and its threads, for the tests, fuzz targets and
// benchmarks.
#ifndef RFEVENT_SUBSCRIPTIONS_INVALID_DEST_INTERNAL_H
#define RFEVENT_SUBSCRIPTIONS_INVALID_DEST_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "subscriptions/invalid_dest.h"

namespace rfevent {

// The queue, the destinations it holds (same order) and the mutex guarding both.
struct InvalidDestinationQueue {
    std::deque<InvalidDestinationRecord> records;
    std::vector<std::string> names;
    std::mutex mutex;
    // records.size(), stored under the mutex whenever records changes, for the tests that are
    // made without the mutex (see queuedRecordCount()).
    std::atomic<std::size_t> recordCount{0};
};

// Built at load; never destroyed once worker threads were started, because they outlive the
// plug-in's unload.
InvalidDestinationQueue& invalidDestinationQueue();

// Producers skip a destination already queued only when more than this many records wait.
constexpr std::size_t kInvalidQueueDuplicateThreshold = 15;

// Number of queued records, read without the queue mutex.
std::size_t queuedRecordCount();

// One pass of InvalidDestHandlingThread1: takes records until the queue is empty, re-sends each
// through the single POST and, when that fails too, applies the subscription's retry policy.
void drainInvalidDestinationQueueOnce();

// What the probing thread does after one cycle.
enum class ProbeCycle {
    Continue, // probe again after the period
    End,      // the store is missing or does not parse: the thread ends for good
};

// One cycle of InvalidDestHandlingThread2: probes every subscription carrying
// "InvalidDestination" and removes the tag from those that answer.
ProbeCycle probeInvalidDestinationsOnce();

// The body of the probe POST.
extern const char* g_invalidDestinationProbeReport;

} // namespace rfevent

#endif
