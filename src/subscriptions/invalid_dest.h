// The invalid-destination queue and the two threads that retry and probe failed destinations.
#ifndef RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H
#define RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

// One pending re-send. Texts are heap copies released with free().
struct InvalidDestinationRecord {
    char* destination;
    char* subscriptionId;
    char* retryPolicy;
    Json::Value* subscription;  // heap copy, deleted with the record
    char* report;
};

namespace rfevent {

// The queue, the destinations it holds (same order) and the mutex guarding both.
struct InvalidDestinationQueue {
    std::deque<InvalidDestinationRecord*> records;
    std::vector<std::string> names;
    std::mutex mutex;
};

// Built at load; never destroyed, because the worker threads outlive the plug-in's unload.
InvalidDestinationQueue& invalidDestinationQueue();

}  // namespace rfevent

void* InvalidDestHandlingThread1(void* unused);
void* InvalidDestHandlingThread2(void* unused);

#endif
