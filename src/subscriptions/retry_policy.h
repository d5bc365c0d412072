// A subscription's "DeliveryRetryPolicy": what happens to it once a destination stayed
// unreachable through every retry.
#ifndef RFEVENT_SUBSCRIPTIONS_RETRY_POLICY_H
#define RFEVENT_SUBSCRIPTIONS_RETRY_POLICY_H

#include <string>

#include "base/log.h"

namespace rfevent {

enum class RetryPolicy {
    Suspend,   // "SuspendRetries": the subscription is disabled
    Terminate, // "TerminateAfterRetries": the subscription is removed
    Other,     // any other text: the caller decides
};

RetryPolicy parseRetryPolicy(const std::string& text);

// Suspends ("Suspending subscription: <id>") or removes ("Terminating subscription: <id>") the
// subscription, logging under spot, and returns the store operation's result. Other does
// nothing and returns -1.
int enforceRetryPolicy(SourceSpot spot, RetryPolicy policy, const std::string& id);

} // namespace rfevent

#endif
