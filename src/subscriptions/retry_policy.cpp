#include "subscriptions/retry_policy.h"

#include "subscriptions/store.h"

namespace rfevent {

RetryPolicy parseRetryPolicy(const std::string& text) {
    if (text == "SuspendRetries") {
        return RetryPolicy::Suspend;
    }
    if (text == "TerminateAfterRetries") {
        return RetryPolicy::Terminate;
    }
    return RetryPolicy::Other;
}

int enforceRetryPolicy(SourceSpot spot, RetryPolicy policy, const std::string& id) {
    switch (policy) {
    case RetryPolicy::Suspend:
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]Suspending subscription: %s \n", id.c_str());
        return setSubscriptionState(id, "Disabled");
    case RetryPolicy::Terminate:
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]Terminating subscription: %s \n", id.c_str());
        return removeSubscription(id);
    case RetryPolicy::Other:
        break;
    }
    return -1;
}

} // namespace rfevent
