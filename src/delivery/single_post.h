// One HTTPS POST with mutual TLS and the configured retries, under the process-wide POST lock.
#ifndef RFEVENT_DELIVERY_SINGLE_POST_H
#define RFEVENT_DELIVERY_SINGLE_POST_H

#include <string>

#include <json/json.h>

namespace rfevent {

// POSTs formData to uri with the "HttpHeaders" of subscription. *failed is set to true only
// when every attempt failed (the "JX083" event-log entry is then written); false otherwise.
// Each attempt's end goes into the delivery status under subscriptionId (none when empty).
void sendHTTPPacketByCURL(const char* formData, const char* uri, const Json::Value& subscription,
                          bool* failed, const std::string& subscriptionId = std::string());

} // namespace rfevent

#endif
