// The invalid-destination queue and the two threads that retry and probe failed destinations.
#ifndef RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H
#define RFEVENT_SUBSCRIPTIONS_INVALID_DEST_H

#include <string>

#include <json/json.h>

namespace rfevent {

// One pending re-send: where to, for which subscription (the whole id, NUL bytes included),
// its "DeliveryRetryPolicy" when it was queued, a copy of the subscription (for its
// "HttpHeaders") and the report that failed.
struct InvalidDestinationRecord {
    std::string destination;
    std::string subscriptionId;
    std::string retryPolicy;
    Json::Value subscription;
    std::string report;
};

// True when the queue holds more than 15 records and one of them is for destination. With 15
// records or fewer a destination may be queued again, and is then re-sent once per record.
bool invalidQueueAlreadyHolds(const std::string& destination);

// Appends the record at the back of the queue and its destination to the queued names, under
// the queue mutex.
void pushInvalidDestination(InvalidDestinationRecord record);

void* InvalidDestHandlingThread1(void* unused);
void* InvalidDestHandlingThread2(void* unused);

} // namespace rfevent

#endif
