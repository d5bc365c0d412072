// What the delivery paths may read of one subscription. The store is written by the REST
// server and by hand; a subscription whose keys have the wrong JSON type is skipped (logged
// with its id and the key) so that it cannot cost the others their delivery.
#ifndef RFEVENT_SUBSCRIPTIONS_SUBSCRIPTION_H
#define RFEVENT_SUBSCRIPTIONS_SUBSCRIPTION_H

#include <string>

#include <json/json.h>

#include "base/log.h"

namespace rfevent {

// True when the subscription can be served: it is an object, its text keys ("Destination",
// "DeliveryRetryPolicy", "SubscriptionType", "SubscriptionStateAfterRetry",
// "EventFormatType") hold text and "HttpHeaders" is an array of objects whose values are
// text, numbers or booleans (absent and null keys are usable). Otherwise logs at level 2,
// under spot, which subscription is skipped and for which key.
bool isUsableSubscription(SourceSpot spot, const std::string& id, const Json::Value& subscription);

// True when every element of the array holds text; logs like isUsableSubscription when not.
bool holdsOnlyText(SourceSpot spot, const std::string& id, const Json::Value& array,
                   const char* key);

// "SubscriptionStateAfterRetry" of a subscription.
enum class SubscriptionState {
    Active,
    Disabled, // "Disabled": skipped by every delivery path until the REST server changes it
};

SubscriptionState subscriptionState(const Json::Value& subscription);

} // namespace rfevent

#endif
