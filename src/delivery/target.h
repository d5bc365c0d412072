// One destination of a parallel delivery.
#ifndef RFEVENT_DELIVERY_TARGET_H
#define RFEVENT_DELIVERY_TARGET_H

#include <cstdint>

#include <json/json.h>

namespace rfevent {

// Texts are heap copies released with free(); the records of one delivery are released
// together by removeFromSubscription.
struct DeliveryTarget {
    char* destination;
    void* spare;
    char* subscriptionId;
    int32_t failureCount;
    char* retryPolicy;
    Json::Value* subscription; // heap copy, deleted with the record
};

// One parallel pass serves at most this many destinations.
constexpr int kMaxParallelDestinations = 30;

} // namespace rfevent

#endif
