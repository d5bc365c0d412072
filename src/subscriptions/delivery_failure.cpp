#include "subscriptions/delivery_failure.h"
#include "subscriptions/delivery_failure_internal.h"

#include "base/log.h"
#include "delivery/jxlog.h"
#include "delivery/single_post.h"
#include "subscriptions/invalid_dest.h"
#include "subscriptions/store.h"

namespace rfevent {

namespace {

enum class RetryPolicy {
    Suspend,   // "SuspendRetries": the subscription is disabled
    Terminate, // "TerminateAfterRetries": the subscription is removed
    Other,     // any other text: the two paths differ
};

RetryPolicy parseRetryPolicy(const std::string& text) {
    if (text == "SuspendRetries") {
        return RetryPolicy::Suspend;
    }
    if (text == "TerminateAfterRetries") {
        return RetryPolicy::Terminate;
    }
    return RetryPolicy::Other;
}

// The event-log entry of a destination that stayed unreachable through every attempt.
void writeUnreachableEntry(const char* uri, int attempts) {
    RF_LOG(kLogDebug, "[%s():%d]retried for %d times so write JX Log \n", attempts);
    int status = SubmitJXLog("JX083", 1, uri);
    RF_LOG(kLogDebug, "[%s():%d]SubmitJXLog returned with status:%d \n", status);
}

// True when the store was rewritten with the subscription disabled.
bool suspendSubscription(SourceSpot spot, const std::string& id) {
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]Suspending subscription: %s \n", id.c_str());
    return setSubscriptionState(id, "Disabled") == 0;
}

// True when the store was rewritten without the subscription.
bool terminateSubscription(SourceSpot spot, const std::string& id) {
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]Terminating subscription: %s \n", id.c_str());
    return removeSubscription(id) == 0;
}

} // namespace

DeliveryOutcome postToSubscriber(const char* body, const char* uri, const Json::Value& subscription,
                                 const std::string& id) {
    return sendHTTPPacketByCURL(body, uri, subscription, id, writeUnreachableEntry);
}

void sendHTTPPacketByCURL(const char* formData, const char* uri, const Json::Value& subscription,
                          bool* failed, const std::string& subscriptionId) {
    *failed = false; // also when the POST raises a JSON type error
    *failed = postToSubscriber(formData, uri, subscription, subscriptionId).failed();
}

void applyPolicyOrKeep(const std::string& id, const Json::Value& subscription) {
    if (!subscription.isMember("DeliveryRetryPolicy")) {
        return;
    }
    switch (parseRetryPolicy(subscription["DeliveryRetryPolicy"].asString())) {
    case RetryPolicy::Suspend:
        (void)suspendSubscription(RF_HERE, id);
        return;
    case RetryPolicy::Terminate:
        if (terminateSubscription(RF_HERE, id)) {
            RF_LOG(kLogDebug, "[%s():%d]Terminating subscription success");
        } else {
            RF_LOG(kLogError, "[%s():%d]Terminating subscription failed");
        }
        return;
    case RetryPolicy::Other:
        RF_LOG(kLogDebug, "[%s():%d]No change to the subscription: %s \n", id.c_str());
        return;
    }
}

void applyPolicyOrTag(const std::string& destination, const std::string& id,
                      const std::string& retryPolicy) {
    RF_LOG(kLogInfo, "[%s():%d]Retransmission uri = %s", destination.c_str());
    RF_LOG(kLogDebug, "[%s():%d]Suspending/Terminating/Adding invalid field to the subscription");
    // The store operations' results are not examined: a failed one leaves the subscription.
    switch (parseRetryPolicy(retryPolicy)) {
    case RetryPolicy::Suspend:
        (void)suspendSubscription(RF_HERE, id);
        return;
    case RetryPolicy::Terminate:
        (void)terminateSubscription(RF_HERE, id);
        return;
    case RetryPolicy::Other:
        RF_LOG(kLogDebug, "[%s():%d]Adding invalid field in subscription");
        (void)addInvalidMemberinSubscription(id);
        return;
    }
}

void queueFailedTargets(const std::vector<DeliveryTarget>& group, const char* report) {
    for (const DeliveryTarget& target : group) {
        if (!target.outcome().failed()) {
            continue;
        }
        if (invalidQueueAlreadyHolds(target.destination)) {
            RF_LOG(kLogDebug, "[%s():%d]%s already in Invalid Queue", target.destination.c_str());
            continue;
        }
        RF_LOG(kLogDebug, "[%s():%d]Found subscription for retry");
        pushInvalidDestination(InvalidDestinationRecord{target.destination, target.subscriptionId,
                                                        target.retryPolicy, target.subscription,
                                                        report});
    }
}

} // namespace rfevent
