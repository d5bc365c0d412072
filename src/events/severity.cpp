#include "events/severity.h"

#include <string>

#include "base/config.h"
#include "base/log.h"

namespace rfevent {

namespace {

// The texts of the three known severities, in the order the record's value is compared.
struct SeverityTexts {
    uint16_t value;
    const char* severity;        // the event's "Severity"
    const char* messageSeverity; // its "MessageSeverity"
};
constexpr SeverityTexts kSeverities[] = {
    {2, "Warning", "Warning"}, {3, "Informational", "OK"}, {1, "Critical", "Critical"}};

// The row of a known severity, or null.
const SeverityTexts* knownSeverity(uint16_t severity) {
    for (const SeverityTexts& row : kSeverities) {
        if (row.value == severity) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

const char* GetSeverityString(uint16_t severity) {
    RF_ENTER();
    const SeverityTexts* row = knownSeverity(severity);
    const char* text = row != nullptr ? row->severity : "Unknown";
    RF_EXIT();
    return text;
}

const char* GetMessageSeverity(uint16_t severity) {
    RF_ENTER();
    const SeverityTexts* row = knownSeverity(severity);
    const char* text = row != nullptr ? row->messageSeverity : nullptr;
    if (text == nullptr) {
        RF_LOG(kLogError, "[%s():%d]MessageSeverity is NULL.");
    }
    RF_EXIT();
    return text;
}

void GetOrvaEvent(Json::Value& object) {
    RF_ENTER();
    std::string hostName;
    if (GetHostName(hostName) == 0) {
        object["ServerHostname"] = hostName;
    } else {
        RF_LOG(kLogError, "[%s():%d]Error while getting hostname");
        object["ServerHostname"] = Json::Value(Json::nullValue);
    }
    object["@odata.type"] = "#OrvaEvent.v1_0_0.OrvaEvent";
    RF_EXIT();
}

} // namespace rfevent
