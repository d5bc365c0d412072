// The push subscription store and the per-destination records of a parallel delivery.
#ifndef RFEVENT_SUBSCRIPTIONS_STORE_H
#define RFEVENT_SUBSCRIPTIONS_STORE_H

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "delivery/target.h"

namespace rfevent {

// The three store operations: 0 when the store was rewritten, -1 when it is absent, does not
// parse or has no subscription with that id (the file is then left untouched). The id is
// compared whole, NUL bytes included.
int removeSubscription(const std::string& subscriptionId);
int addInvalidMemberinSubscription(const std::string& subscriptionId);
int setSubscriptionState(const std::string& subscriptionId, const char* state);

// Releases every record of a parallel delivery and empties the vector.
void removeFromSubscription(std::vector<DeliveryTarget>& targets);

// Replaces the store with the styled form of document: written to a temporary file in the
// same folder, then renamed over the store, so readers see the old or the new content.
bool writeSubscriptionStore(const Json::Value& document);

} // namespace rfevent

#endif
