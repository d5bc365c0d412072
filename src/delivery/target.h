// One destination of a parallel delivery, and what became of a delivery.
#ifndef RFEVENT_DELIVERY_TARGET_H
#define RFEVENT_DELIVERY_TARGET_H

#include <curl/curl.h>

#include <cstdint>
#include <string>

#include <json/json.h>

#include "base/log.h"

namespace rfevent {

// What became of one delivery to one destination.
enum class DeliveryResult {
    Delivered, // the destination answered, whatever its HTTP status
    NotSent,   // nothing was sent: bad arguments, a refused option or no attempts configured
    Failed,    // every attempt failed in transport (connection, TLS, time-out)
};

struct DeliveryOutcome {
    DeliveryResult result = DeliveryResult::NotSent;
    CURLcode reason = CURLE_OK; // libcurl's result of the last failed transfer when Failed

    bool failed() const { return result == DeliveryResult::Failed; }
};

// One destination of a parallel delivery: the subscription's destination, id, retry policy
// and a copy of the subscription (for its "HttpHeaders"). The parallel POST counts the
// failed transfers to the destination in failureCount.
struct DeliveryTarget {
    std::string destination;
    std::string subscriptionId; // the whole id, NUL bytes included
    int32_t failureCount = 0;
    CURLcode lastFailure = CURLE_OK; // libcurl's result of the last failed transfer
    std::string retryPolicy;
    Json::Value subscription;

    DeliveryOutcome outcome() const {
        if (failureCount == 0) {
            return {DeliveryResult::Delivered, CURLE_OK};
        }
        return {DeliveryResult::Failed, lastFailure};
    }
};

// The line said where a delivery record is released: the address of the subscription copy
// it holds (its low 32 bits, as the format has always printed it), logged under spot.
inline void logRecordRelease(SourceSpot spot, const Json::Value& subscription) {
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]Before Freeing the ptr[%u]\n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(&subscription)));
}

// One parallel pass serves at most this many destinations.
constexpr int kMaxParallelDestinations = 30;

} // namespace rfevent

#endif
