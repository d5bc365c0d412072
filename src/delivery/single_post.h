// One HTTPS POST with mutual TLS and the configured retries, under the process-wide POST lock.
#ifndef RFEVENT_DELIVERY_SINGLE_POST_H
#define RFEVENT_DELIVERY_SINGLE_POST_H

#include <string>

#include <json/json.h>

#include "delivery/target.h"

namespace rfevent {

// Called once every attempt failed, with the destination and the number of failed attempts,
// while the POST lock is still held and before the transfer's handle is released: what the
// caller records about a destination that stayed unreachable.
using RetriesExhausted = void (*)(const char* uri, int attempts);

// POSTs formData to uri with the "HttpHeaders" of subscription. Failed only when every
// attempt failed (onExhausted has then been called); NotSent for bad arguments, a refused
// option or a retry count of 0 or less. Each attempt's end goes into the delivery status
// under subscriptionId (none when empty).
DeliveryOutcome sendHTTPPacketByCURL(const char* formData, const char* uri,
                                     const Json::Value& subscription,
                                     const std::string& subscriptionId,
                                     RetriesExhausted onExhausted);

} // namespace rfevent

#endif
