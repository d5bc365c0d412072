// The invalid-destination queue and the two threads that retry and probe failed destinations.
#ifndef RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H
#define RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

namespace rfevent {

// One pending re-send. Texts are heap copies released with free().
struct InvalidDestinationRecord {
    char* destination;
    char* subscriptionId;
    char* retryPolicy;
    Json::Value* subscription; // heap copy, deleted with the record
    char* report;
    // Bytes of subscriptionId when the id holds NUL bytes; 0 when it is a plain C text.
    std::size_t subscriptionIdLength;
};

// The queue, the destinations it holds (same order) and the mutex guarding both.
struct InvalidDestinationQueue {
    std::deque<InvalidDestinationRecord*> records;
    std::vector<std::string> names;
    std::mutex mutex;
    // records.size(), stored under the mutex whenever records changes, for the tests that are
    // made without the mutex (see queuedRecordCount()).
    std::atomic<std::size_t> recordCount{0};
};

// Built at load; never destroyed, because the worker threads outlive the plug-in's unload.
InvalidDestinationQueue& invalidDestinationQueue();

// Producers skip a destination already queued only when more than this many records wait.
constexpr std::size_t kInvalidQueueDuplicateThreshold = 15;

// Number of queued records, read without the queue mutex.
std::size_t queuedRecordCount();

// True when the queue holds more than 15 records and one of them is for destination. With 15
// records or fewer a destination may be queued again, and is then re-sent once per record.
bool invalidQueueAlreadyHolds(const char* destination);

// Appends the record at the back of the queue and its destination to the queued names, under
// the queue mutex. The queue owns the record from then on.
void pushInvalidDestination(InvalidDestinationRecord* record);

// Releases a record and everything it owns.
void releaseInvalidDestinationRecord(InvalidDestinationRecord* record);

// One pass of InvalidDestHandlingThread1: takes records until the queue is empty, re-sends each
// through the single POST and, when that fails too, applies the subscription's retry policy.
void drainInvalidDestinationQueueOnce();

// One cycle of InvalidDestHandlingThread2: probes every subscription carrying
// "InvalidDestination" and removes the tag from those that answer. Returns true when the thread
// must end (store missing or unparsable).
bool probeInvalidDestinationsOnce();

// The body of the probe POST.
extern const char* g_invalidDestinationProbeReport;

void* InvalidDestHandlingThread1(void* unused);
void* InvalidDestHandlingThread2(void* unused);

} // namespace rfevent

#endif
