#include "events/severity.h"

#include <string>

#include "base/config.h"
#include "base/log.h"

namespace rfevent {

const char* GetSeverityString(uint16_t severity) {
    RF_ENTER();
    const char* text = "Unknown";
    if (severity == 2) {
        text = "Warning";
    } else if (severity == 3) {
        text = "Informational";
    } else if (severity == 1) {
        text = "Critical";
    }
    RF_EXIT();
    return text;
}

const char* GetMessageSeverity(uint16_t severity) {
    RF_ENTER();
    const char* text = nullptr;
    if (severity == 2) {
        text = "Warning";
    } else if (severity == 3) {
        text = "OK";
    } else if (severity == 1) {
        text = "Critical";
    }
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
