// Builds alert records the way the platform lays them out, at a deliberately odd address, and
// the event object the plug-in is expected to compose from them.
#ifndef RFEVENT_TESTS_EVENTS_ALERT_RECORD_H
#define RFEVENT_TESTS_EVENTS_ALERT_RECORD_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "rfevent/redfish_event.h"

namespace rfevent::testkit {

struct AlertFields {
    int32_t eventId = 0;
    uint16_t severity = 0;
    int32_t memberId = 0;
    std::optional<std::string> messageId;
    std::optional<std::string> message;
    std::optional<std::string> fqdd;
    std::optional<std::vector<std::string>> args; // engaged and empty: a list of one NUL
};

inline AlertFields fullAlert() {
    AlertFields f;
    f.eventId = 4242;
    f.severity = 1;
    f.memberId = 77;
    f.messageId = "TVK0001";
    f.message = "The fan speed is low.";
    f.fqdd = "Disk.Bay.0:Enclosure.Internal.0-1:RAID.Integrated.1-1";
    f.args = std::vector<std::string>{"Fan 1", "300"};
    return f;
}

class AlertRecord {
  public:
    explicit AlertRecord(const AlertFields& fields) : fields_(fields) {
        const size_t head = 72;
        bytes_.assign(head, 0);
        putI32(16, fields.eventId);
        putU32(20, 0xDEADBEEF); // unread neighbours must not leak into the fields
        putU16(22, fields.severity);
        putU32(24, 0xFFFFFFFF);
        putI32(68, fields.memberId);
        putText(28, fields.messageId);
        putText(32, fields.message);
        putText(36, fields.fqdd);
        if (fields.args) {
            putU32(52, static_cast<uint32_t>(bytes_.size()));
            for (const std::string& arg : *fields.args) {
                bytes_.insert(bytes_.end(), arg.begin(), arg.end());
                bytes_.push_back(0);
            }
            bytes_.push_back(0);
        }
        // One byte in front so that the record sits at an odd address.
        storage_.assign(bytes_.size() + 1, 0);
        std::memcpy(storage_.data() + 1, bytes_.data(), bytes_.size());
    }
    DataEventHeader* header() { return reinterpret_cast<DataEventHeader*>(storage_.data() + 1); }
    const AlertFields& fields() const { return fields_; }

  private:
    void putU32(size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            bytes_[at + i] = static_cast<unsigned char>(v >> (8 * i));
        }
    }
    void putI32(size_t at, int32_t v) { putU32(at, static_cast<uint32_t>(v)); }
    void putU16(size_t at, uint16_t v) {
        bytes_[at] = static_cast<unsigned char>(v);
        bytes_[at + 1] = static_cast<unsigned char>(v >> 8);
    }
    void putText(size_t at, const std::optional<std::string>& text) {
        if (!text) {
            return;
        }
        putU32(at, static_cast<uint32_t>(bytes_.size()));
        bytes_.insert(bytes_.end(), text->begin(), text->end());
        bytes_.push_back(0);
    }

    AlertFields fields_;
    std::vector<unsigned char> bytes_;
    std::vector<unsigned char> storage_;
};

// The event object expected for fields; uri is the OriginOfCondition expected ("" = none).
inline Json::Value expectedEvent(const AlertFields& f, const std::string& timestamp,
                                 const std::string& uri, const Json::Value* context) {
    Json::Value e(Json::objectValue);
    e["EventType"] = "Alert";
    e["EventId"] = std::to_string(f.eventId).substr(0, 7);
    e["EventTimestamp"] = timestamp;
    static const char* const kSeverity[] = {"Unknown", "Critical", "Warning", "Informational"};
    static const char* const kMessageSeverity[] = {nullptr, "Critical", "Warning", "OK"};
    bool known = f.severity >= 1 && f.severity <= 3;
    e["Severity"] = known ? kSeverity[f.severity] : "Unknown";
    if (known) {
        e["MessageSeverity"] = kMessageSeverity[f.severity];
    }
    if (f.memberId != 0) {
        e["MemberId"] = std::to_string(f.memberId);
    }
    if (f.messageId) {
        e["MessageId"] = "TAVIK.2.8." + *f.messageId;
    }
    if (f.message) {
        e["Message"] = *f.message;
    }
    if (f.args && !f.args->empty()) {
        for (const std::string& arg : *f.args) {
            e["MessageArgs"].append(arg);
        }
        e["MessageArgs@odata.count"] = static_cast<int>(f.args->size());
    }
    if (context != nullptr) {
        e["Context"] = *context;
    }
    if (!uri.empty()) {
        e["OriginOfCondition"]["@odata.id"] = uri;
    }
    return e;
}

inline Json::Value expectedOrva(const Json::Value& hostName) {
    Json::Value o(Json::objectValue);
    o["@odata.type"] = "#OrvaEvent.v1_0_0.OrvaEvent";
    o["ServerHostname"] = hostName;
    return o;
}

} // namespace rfevent::testkit

#endif
