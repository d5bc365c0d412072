#include "subscriptions/subscription.h"

namespace rfevent {
namespace {

bool isTextOrAbsent(const Json::Value& value) {
    return value.isNull() || value.isString();
}

// Each element an object whose values are scalars (a header value is written as text).
bool isHeaderList(const Json::Value& headers) {
    if (headers.isNull()) {
        return true;
    }
    if (!headers.isArray()) {
        return false;
    }
    for (const Json::Value& element : headers) {
        if (!element.isObject()) {
            return false;
        }
        for (const Json::Value& value : element) {
            if (value.isArray() || value.isObject()) {
                return false;
            }
        }
    }
    return true;
}

void logSkipped(SourceSpot spot, const std::string& id, const char* key) {
    RF_LOG_AT(spot, kLogError, "[%s():%d]Subscription %s skipped: %s has the wrong JSON type",
              id.c_str(), *key != '\0' ? key : "the subscription");
}

// The first key of subscription the delivery paths cannot use, or null when there is none:
// the subscription itself is not an object ("" is returned), a text key holds something else
// than text, or "HttpHeaders" is not an array of objects whose values are text, numbers or
// booleans. Absent and null keys are usable.
const char* unusableKey(const Json::Value& subscription) {
    static const char* const kTextKeys[] = {"Destination", "DeliveryRetryPolicy",
                                            "SubscriptionType", "SubscriptionStateAfterRetry",
                                            "EventFormatType"};
    if (!subscription.isObject()) {
        return "";
    }
    for (const char* key : kTextKeys) {
        if (!isTextOrAbsent(subscription[key])) {
            return key;
        }
    }
    return isHeaderList(subscription["HttpHeaders"]) ? nullptr : "HttpHeaders";
}

} // namespace

bool isUsableSubscription(SourceSpot spot, const std::string& id, const Json::Value& subscription) {
    const char* key = unusableKey(subscription);
    if (key == nullptr) {
        return true;
    }
    logSkipped(spot, id, key);
    return false;
}

bool holdsOnlyText(SourceSpot spot, const std::string& id, const Json::Value& array,
                   const char* key) {
    for (const Json::Value& element : array) {
        if (!element.isString()) {
            logSkipped(spot, id, key);
            return false;
        }
    }
    return true;
}

SubscriptionState subscriptionState(const Json::Value& subscription) {
    const Json::Value& state = subscription["SubscriptionStateAfterRetry"];
    return state.isString() && state.asString() == "Disabled" ? SubscriptionState::Disabled
                                                              : SubscriptionState::Active;
}

} // namespace rfevent
