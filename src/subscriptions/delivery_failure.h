// "Delivery failed" and everything that follows from it, in one place: the "JX083" event-log
// entry of a destination that stayed unreachable through every retry, the subscription's
// "DeliveryRetryPolicy", and the re-send queue for the destinations a report did not reach.
// The POSTs only say what became of a delivery; the decisions are made here.
#ifndef RFEVENT_SUBSCRIPTIONS_DELIVERY_FAILURE_H
#define RFEVENT_SUBSCRIPTIONS_DELIVERY_FAILURE_H

#include <string>
#include <vector>

#include <json/json.h>

#include "delivery/target.h"

namespace rfevent {

// The single POST of body to uri with the "HttpHeaders" of subscription, its attempts
// recorded under id. When every attempt failed, the "JX083" entry naming uri is written
// while the POST lock is still held, and the outcome is Failed.
DeliveryOutcome postToSubscriber(const char* body, const char* uri, const Json::Value& subscription,
                                 const std::string& id);

// After a failed alert delivery: "SuspendRetries" disables the subscription,
// "TerminateAfterRetries" removes it, any other policy keeps it as it is; without
// "DeliveryRetryPolicy" nothing is done.
void applyPolicyOrKeep(const std::string& id, const Json::Value& subscription);

// After a failed re-send: the same two policies, but any other policy (none included) tags
// the subscription "InvalidDestination", which hands it to the probing thread.
void applyPolicyOrTag(const std::string& destination, const std::string& id,
                      const std::string& retryPolicy);

// Queues every target of one parallel pass whose transfer failed for one re-send of report,
// skipping a destination already queued while the queue is long.
void queueFailedTargets(const std::vector<DeliveryTarget>& group, const char* report);

} // namespace rfevent

#endif
