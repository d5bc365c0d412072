#include "events/sse_path.h"
#include "events/sse_path_internal.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "events/event_record.h"
#include "platform/platform.h"
#include "sse/message.h"
#include "sse/transport.h"
#include "subscriptions/subscription.h"

namespace rfevent {

namespace {

// Numbers the alerts of this process for SSE clients, from 1.
std::atomic<uint32_t> sseEventCounter{0};

struct SseAlertCall {
    const DataEventHeader* header;
    std::string number;
    std::string timestamp;
    NumericDynamicSegment numericIds;
};

std::string composeFrame(SseAlertCall& call) {
    const bool special = rfevent::isSpecialMessage(call.header);
    Json::Value event = rfevent::composeAlertEvent(call.header, call.timestamp, nullptr);
    Json::Value id = special ? Json::Value(0) : Json::Value(call.number);
    Json::Value document = rfevent::eventDocument(call.number, id, nullptr, event);

    return alertFrame(special ? "0" : call.number, rfevent::writeCompactJson(document));
}

void sendFrame(SseAlertCall& call) {
    std::string frame = composeFrame(call);
    if (call.numericIds.FormatResponseWithNumericId(frame) == 0) {
        RF_LOG(kLogDebug, "[%s():%d]Event Modified successfully with NumericIDs!");
    }
    send_to_sse(frame.c_str());
}

} // namespace

uint32_t sseEventCount() {
    return sseEventCounter.load(std::memory_order_relaxed);
}

void sendRedFishEvent_SSE(DataEventHeader* header, void* eventContext) {
    (void)eventContext;
    RF_ENTER();
    uint32_t count = sseEventCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    char number[24] = {};
    std::snprintf(number, sizeof number, "%ld", static_cast<long>(count));
    SseAlertCall call{header, number, rfevent::eventTimestamp(), {}};

    Json::Value subscriptions;
    if (!rfevent::loadJsonObject(RF_HERE, rfevent::fixedPath(rfevent::FixedPath::SseSubscriptions),
                                 rfevent::kAlertSubscriptionsFile, subscriptions)) {
        RF_EXIT();
        return;
    }

    bool frameSent = false;
    for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
        if (!it->isObject()) {
            RF_LOG(kLogError, "[%s():%d]SSE subscription %s skipped: not an object",
                   it.name().c_str());
            continue;
        }
        const Json::Value& eventTypes = (*it)["EventTypes"];
        if (!eventTypes.isArray()) {
            RF_LOG(kLogDebug, "[%s():%d]EventType is not an array\n");
            continue;
        }
        if (eventTypes.empty()) {
            break; // later subscriptions get nothing for this alert
        }
        if (!holdsOnlyText(RF_HERE, it.name(), eventTypes, "EventTypes")) {
            continue;
        }
        // Until the first frame of this call every element is searched; after it only a
        // leading "Alert" counts.
        for (Json::ArrayIndex i = 0; i < eventTypes.size(); ++i) {
            if (shortText(eventTypes[i]) == "Alert") {
                RF_LOG(kLogDebug, "[%s():%d]Event Type is Alert\n");
                sendFrame(call);
                frameSent = true;
                break;
            }
            RF_LOG(kLogDebug, "[%s():%d]Not an alert type\n");
            if (frameSent) {
                break;
            }
        }
    }
    RF_EXIT();
}

} // namespace rfevent
