#include "events/subscriber_path.h"
#include "events/subscriber_path_internal.h"

#include <string>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "events/event_record.h"
#include "platform/platform.h"
#include "subscriptions/delivery_failure.h"
#include "subscriptions/subscription.h"

namespace rfevent {

namespace {

constexpr size_t kDestinationSize = 2048;

struct AlertCall {
    const DataEventHeader* header;
    std::string timestamp;
    NumericDynamicSegment numericIds;
};

void deliver(AlertCall& call, const std::string& id, const Json::Value& subscription) {
    Json::Value document =
        rfevent::composeSubscriberDocument(call.header, call.timestamp, id, subscription);
    Json::Value headers(Json::objectValue);
    headers["HttpHeaders"] = subscription["HttpHeaders"];
    std::string text = rfevent::writeCompactJson(document);

    const Json::Value& destinationValue = subscription["Destination"];
    if (!destinationValue.isString()) {
        RF_LOG(kLogError, "[%s():%d]No Destination for subscription: %s", id.c_str());
        return;
    }
    std::string destination = destinationValue.asString().substr(0, kDestinationSize - 1);
    if (call.numericIds.FormatResponseWithNumericId(text) == 0) {
        RF_LOG(kLogDebug, "[%s():%d]Event Modified successfully with NumericIDs!");
    }
    if (!postToSubscriber(text.c_str(), destination.c_str(), headers, id).failed()) {
        RF_LOG(kLogDebug, "[%s():%d]sendHTTPPacketByCURL success \n");
        return;
    }
    applyPolicyOrKeep(id, subscription);
}

// Whether the walk over the store goes on after a subscription.
enum class Walk {
    Next, // on to the next subscription
    Stop, // an empty "EventTypes": later subscriptions get nothing for this alert
};

// Serves one subscription.
Walk serveSubscription(AlertCall& call, const std::string& id, const Json::Value& subscription) {
    if (!isUsableSubscription(RF_HERE, id, subscription)) {
        return Walk::Next;
    }
    if (subscription.isMember("EventFormatType") &&
        shortText(subscription["EventFormatType"]) == "MetricReport") {
        RF_LOG(kLogDebug, "[%s():%d]SubscriptionId:%s is not Event as EventFormatType", id.c_str());
        return Walk::Next;
    }
    const Json::Value& eventTypes = subscription["EventTypes"];
    if (!eventTypes.isArray()) {
        RF_LOG(kLogDebug, "[%s():%d]EventType is not an array\n");
        return Walk::Next;
    }
    if (eventTypes.empty()) {
        return Walk::Stop;
    }
    if (!holdsOnlyText(RF_HERE, id, eventTypes, "EventTypes")) {
        return Walk::Next;
    }
    if (subscriptionState(subscription) == SubscriptionState::Disabled) {
        RF_LOG(kLogDebug, "[%s():%d]Disabled subscription found, skipping...");
        return Walk::Next;
    }
    // Every "Alert" element is one delivery, so a repeated element delivers twice.
    for (Json::ArrayIndex i = 0; i < eventTypes.size(); ++i) {
        if (shortText(eventTypes[i]) != "Alert") {
            RF_LOG(kLogDebug, "[%s():%d]Not an alert type\n");
            continue;
        }
        deliver(call, id, subscription);
    }
    return Walk::Next;
}

} // namespace

Json::Value composeSubscriberDocument(const DataEventHeader* header, const std::string& timestamp,
                                      const std::string& id, const Json::Value& subscription) {
    const Json::Value& context = subscription["Context"];
    return eventDocument(id, Json::Value(id), &context,
                         composeAlertEvent(header, timestamp, &context));
}

void sendRedFishEvent(DataEventHeader* header, void* eventContext) {
    (void)eventContext;
    RF_ENTER();
    AlertCall call{header, rfevent::eventTimestamp(), {}};
    Json::Value store;
    if (!rfevent::loadJsonObject(RF_HERE, rfevent::fixedPath(rfevent::FixedPath::SubscriptionStore),
                                 rfevent::kAlertSubscriptionsFile, store)) {
        RF_EXIT();
        return;
    }
    // Walks the in-memory copy: a subscription suspended or removed on the way is still served
    // for its remaining "EventTypes" elements.
    for (auto it = store.begin(); it != store.end(); ++it) {
        if (serveSubscription(call, it.name(), *it) == Walk::Stop) {
            break;
        }
    }
    RF_EXIT();
}

} // namespace rfevent
