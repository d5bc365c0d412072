// Inside delivery-failure handling, for the tests.
#ifndef RFEVENT_SUBSCRIPTIONS_DELIVERY_FAILURE_INTERNAL_H
#define RFEVENT_SUBSCRIPTIONS_DELIVERY_FAILURE_INTERNAL_H

#include <string>

#include <json/json.h>

namespace rfevent {

// The single POST with its out-flag: *failed is true only when every attempt failed (the
// "JX083" entry is then written), false on every other ending. The same delivery as
// postToSubscriber.
void sendHTTPPacketByCURL(const char* formData, const char* uri, const Json::Value& subscription,
                          bool* failed, const std::string& subscriptionId = std::string());

} // namespace rfevent

#endif
