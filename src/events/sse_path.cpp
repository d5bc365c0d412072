#include "events/sse_path.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "events/event_record.h"
#include "events/severity.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/platform.h"
#include "sse/transport.h"

using rfevent::kLogDebug;
using rfevent::kLogError;

namespace {

constexpr size_t kShortTextSize = 20;

// Numbers the alerts of this process for SSE clients, from 1.
std::atomic<uint32_t> sseEventCounter{0};

struct SseAlertCall {
    const DataEventHeader* header;
    std::string number;
    std::string timestamp;
    NumericDynamicSegment numericIds;
};

std::string composeFrame(SseAlertCall& call) {
    bool special = false;
    Json::Value event = rfevent::composeAlertEvent(call.header, call.timestamp, nullptr, &special);
    Json::Value document(Json::objectValue);
    document["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    document["@odata.type"] = "#Event.v1_5_0.Event";
    document["@odata.id"] = "/redfish/v1/EventService/Events/" + call.number;
    document["Id"] = special ? Json::Value(0) : Json::Value(call.number);
    document["Name"] = "Event Array";
    document["Events"] = Json::Value(Json::arrayValue);
    document["Events"].append(event);
    Json::Value orva(Json::objectValue);
    GetOrvaEvent(orva);
    document["Oem"]["Orva"] = orva;

    std::string frame = "EventFormatType eq Event=";
    frame += special ? std::string("<id:0>:") : "<id:" + call.number + ">:";
    frame += rfevent::writeCompactJson(document);
    frame += "<END>";
    return frame;
}

void sendFrame(SseAlertCall& call) {
    std::string frame = composeFrame(call);
    if (call.numericIds.FormatResponseWithNumericId(frame) == 0) {
        RF_LOG(kLogDebug, "[%s():%d]Event Modified successfully with NumericIDs!");
    }
    send_to_sse(frame.c_str());
}

} // namespace

namespace rfevent {
uint32_t sseEventCount() {
    return sseEventCounter.load(std::memory_order_relaxed);
}
} // namespace rfevent

void sendRedFishEvent_SSE(DataEventHeader* header, void* eventContext) {
    (void)eventContext;
    RF_ENTER();
    uint32_t count = sseEventCounter.fetch_add(1, std::memory_order_relaxed) + 1;
    char number[24] = {};
    std::snprintf(number, sizeof number, "%ld", static_cast<long>(count));
    SseAlertCall call{header, number, rfevent::eventTimestamp(), {}};

    const char* path = rfevent::fixedPath(rfevent::FixedPath::SseSubscriptions);
    struct stat info;
    if (::stat(path, &info) != 0) {
        RF_LOG(kLogError, "[%s():%d]subscriptions file does not exist\n");
        RF_EXIT();
        return;
    }
    std::ifstream in(path);
    Json::Value subscriptions;
    RF_Json_Reader reader;
    if (!reader.parse(in, subscriptions)) {
        RF_LOG(kLogError, "[%s():%d]subscriber File Data parsing failed\n");
        in.close();
        RF_EXIT();
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]subscriber File Data Parsed Successfully\n");

    bool frameSent = false;
    for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
        const Json::Value& eventTypes = (*it)["EventTypes"];
        if (!eventTypes.isArray()) {
            RF_LOG(kLogDebug, "[%s():%d]EventType is not an array\n");
            continue;
        }
        if (eventTypes.empty()) {
            break; // later subscriptions get nothing for this alert
        }
        // Until the first frame of this call every element is searched; after it only a
        // leading "Alert" counts.
        for (Json::ArrayIndex i = 0; i < eventTypes.size(); ++i) {
            if (eventTypes[i].asString().substr(0, kShortTextSize - 1) == "Alert") {
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
    in.close();
    RF_EXIT();
}
