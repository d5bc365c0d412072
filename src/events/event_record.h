// Reading the alert record and composing the event object both alert paths send.
#ifndef RFEVENT_EVENTS_EVENT_RECORD_H
#define RFEVENT_EVENTS_EVENT_RECORD_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

#include "base/json.h"
#include "rfevent/redfish_event.h"

namespace rfevent {

// How both alert paths log the subscription file they read.
inline const JsonFileTexts kAlertSubscriptionsFile = {
    kLogError, "subscriptions file does not exist\n", nullptr,
    "subscriber File Data parsing failed\n", "subscriber File Data Parsed Successfully\n"};

// The current local time as "%Y-%m-%dT%H:%M:%S%z".
std::string eventTimestamp();

// Builds the event object of one alert. context, when given, becomes the event's "Context".
Json::Value composeAlertEvent(const DataEventHeader* header, const std::string& timestamp,
                              const Json::Value* context);

// True when the alert's message id starts with "TVK0182": its SSE frame is numbered 0.
bool isSpecialMessage(const DataEventHeader* header);

// A subscription's text as the 20-byte buffer of the alert paths holds it: up to its first NUL
// byte, at most 19 characters.
std::string shortText(const Json::Value& value);

// The Event document around one event object, the same for both alert paths: "@odata.id"
// ends with number, "Id" is id, "Context" is set only when context is given, and "Oem" carries
// the vendor block.
Json::Value eventDocument(const std::string& number, const Json::Value& id,
                          const Json::Value* context, const Json::Value& event);

} // namespace rfevent

#endif
