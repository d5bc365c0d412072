// One destination of a parallel delivery.
#ifndef RFEVENT_DELIVERY_TARGET_H
#define RFEVENT_DELIVERY_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <json/json.h>

#include "base/log.h"

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
    // Bytes of subscriptionId when the id holds NUL bytes; 0 when it is a plain C text.
    std::size_t subscriptionIdLength;
};

// The whole subscription id a record holds.
template <typename Record> std::string recordSubscriptionId(const Record& record) {
    if (record.subscriptionId == nullptr) {
        return std::string();
    }
    return record.subscriptionIdLength != 0
               ? std::string(record.subscriptionId, record.subscriptionIdLength)
               : std::string(record.subscriptionId);
}

// Frees the texts and the subscription copy a delivery record owns, logging the copy's
// pointer first (its low 32 bits, as the format has always printed it) under spot. The
// records of a parallel delivery and of the invalid-destination queue own the same fields.
template <typename Record> void releaseRecordFields(SourceSpot spot, Record& record) {
    std::free(record.destination);
    std::free(record.subscriptionId);
    std::free(record.retryPolicy);
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]Before Freeing the ptr[%u]\n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(record.subscription)));
    delete record.subscription;
}

// One parallel pass serves at most this many destinations.
constexpr int kMaxParallelDestinations = 30;

} // namespace rfevent

#endif
