// Severity texts and the vendor block of an alert event.
#ifndef RFEVENT_EVENTS_SEVERITY_H
#define RFEVENT_EVENTS_SEVERITY_H

#include <cstdint>

#include <json/json.h>

namespace rfevent {

// "Critical", "Warning", "Informational" or "Unknown"; never null.
const char* GetSeverityString(uint16_t severity);
// "Critical", "Warning", "OK", or null for an unknown severity.
const char* GetMessageSeverity(uint16_t severity);
// Fills object with "ServerHostname" (null when the host name cannot be read) and
// "@odata.type".
void GetOrvaEvent(Json::Value& object);

} // namespace rfevent

#endif
