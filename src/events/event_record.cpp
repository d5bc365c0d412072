#include "events/event_record.h"
#include "events/event_record_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/clock.h"
#include "base/log.h"
#include "events/severity.h"

namespace rfevent {

namespace {

const unsigned char* recordBytes(const DataEventHeader* header) {
    return reinterpret_cast<const unsigned char*>(header);
}

uint32_t littleEndian(const unsigned char* bytes, size_t width) {
    uint32_t value = 0;
    for (size_t i = width; i > 0; --i) {
        value = (value << 8) | bytes[i - 1];
    }
    return value;
}

void addMessageArgs(Json::Value& event, const DataEventHeader* header) {
    const char* arg = recordText(header, kRecordMessageArgs);
    if (arg == nullptr) {
        RF_LOG(kLogDebug, "[%s():%d]Message Arguments is not present in DM Structure\n");
        return;
    }
    if (*arg == '\0') {
        RF_LOG(kLogDebug, "[%s():%d]No Message Arguments\n");
        return;
    }
    Json::Value args(Json::arrayValue);
    while (*arg != '\0') {
        args.append(arg);
        arg += std::strlen(arg) + 1;
    }
    event["MessageArgs@odata.count"] = static_cast<Json::Int>(args.size());
    event["MessageArgs"] = args;
}

void addOriginOfCondition(Json::Value& event, const DataEventHeader* header) {
    const char* fqdd = recordText(header, kRecordFqdd);
    if (fqdd == nullptr) {
        RF_LOG(kLogDebug, "[%s():%d]No offsetFQDD\n");
        return;
    }
    char uri[256] = {};
    MapFQDDToRedfishURI(fqdd, uri, sizeof uri);
    std::string encoded = uri;
    GetEncodedURIsegment(encoded);
    if (uri[0] == '\0') {
        RF_LOG(kLogDebug, "[%s():%d]NO URI Found for the FQDD :%s", fqdd);
        return;
    }
    Json::Value origin(Json::objectValue);
    origin["@odata.id"] = encoded;
    event["OriginOfCondition"] = origin;
}

// "Severity", and "MessageSeverity" when the severity is one of the three known.
void addSeverities(Json::Value& event, uint16_t severity) {
    event["Severity"] = GetSeverityString(severity);
    const char* messageSeverity = GetMessageSeverity(severity);
    if (messageSeverity != nullptr) {
        event["MessageSeverity"] = messageSeverity;
    }
}

} // namespace

uint16_t recordU16(const DataEventHeader* header, size_t position) {
    unsigned char bytes[2];
    std::memcpy(bytes, recordBytes(header) + position, sizeof bytes);
    return static_cast<uint16_t>(littleEndian(bytes, sizeof bytes));
}

uint32_t recordU32(const DataEventHeader* header, size_t position) {
    unsigned char bytes[4];
    std::memcpy(bytes, recordBytes(header) + position, sizeof bytes);
    return littleEndian(bytes, sizeof bytes);
}

int32_t recordI32(const DataEventHeader* header, size_t position) {
    uint32_t raw = recordU32(header, position);
    int32_t value;
    std::memcpy(&value, &raw, sizeof value);
    return value;
}

const char* recordText(const DataEventHeader* header, size_t position) {
    uint32_t offset = recordU32(header, position);
    if (offset == 0) {
        return nullptr;
    }
    return reinterpret_cast<const char*>(recordBytes(header) + offset);
}

std::string eventTimestamp() {
    char text[32] = {};
    std::time_t now = wallClockSeconds();
    std::tm local = {};
    if (::localtime_r(&now, &local) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
    }
    return text;
}

bool isSpecialMessage(const DataEventHeader* header) {
    const char* messageId = recordText(header, kRecordMessageId);
    return messageId != nullptr && std::strncmp(messageId, "TVK0182", 7) == 0;
}

Json::Value composeAlertEvent(const DataEventHeader* header, const std::string& timestamp,
                              const Json::Value* context) {
    Json::Value event(Json::objectValue);
    event["EventType"] = "Alert";

    char eventId[8] = {};
    std::snprintf(eventId, sizeof eventId, "%d", recordI32(header, kRecordEventId));
    event["EventId"] = eventId;
    event["EventTimestamp"] = timestamp;

    addSeverities(event, recordU16(header, kRecordSeverity));

    int32_t memberId = recordI32(header, kRecordMemberId);
    if (memberId != 0) {
        char text[255] = {};
        std::snprintf(text, sizeof text, "%d", memberId);
        event["MemberId"] = text;
    } else {
        RF_LOG(kLogError, "[%s():%d]No MemberID");
    }

    const char* messageId = recordText(header, kRecordMessageId);
    if (messageId != nullptr) {
        event["MessageId"] = std::string("TAVIK.2.8") + "." + messageId;
    } else {
        RF_LOG(kLogDebug, "[%s():%d]No Message ID\n");
    }

    const char* message = recordText(header, kRecordMessage);
    if (message != nullptr) {
        event["Message"] = message;
    } else {
        RF_LOG(kLogDebug, "[%s():%d]No Message\n");
    }

    addMessageArgs(event, header);
    if (context != nullptr) {
        event["Context"] = *context;
    }
    addOriginOfCondition(event, header);
    return event;
}

std::string shortText(const Json::Value& value) {
    constexpr std::size_t kShortTextSize = 20;
    const std::string text = value.asString();
    return text.substr(0, std::min(text.find('\0'), kShortTextSize - 1));
}

Json::Value eventDocument(const std::string& number, const Json::Value& id,
                          const Json::Value* context, const Json::Value& event) {
    Json::Value document(Json::objectValue);
    document["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    document["@odata.type"] = "#Event.v1_5_0.Event";
    document["@odata.id"] = "/redfish/v1/EventService/Events/" + number;
    document["Id"] = id;
    document["Name"] = "Event Array";
    if (context != nullptr) {
        document["Context"] = *context;
    }
    document["Events"] = Json::Value(Json::arrayValue);
    document["Events"].append(event);
    Json::Value orva(Json::objectValue);
    GetOrvaEvent(orva);
    document["Oem"]["Orva"] = orva;
    return document;
}

} // namespace rfevent
