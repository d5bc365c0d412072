// Inside the subscriber path, for its tests and benchmarks.
#ifndef RFEVENT_EVENTS_SUBSCRIBER_PATH_INTERNAL_H
#define RFEVENT_EVENTS_SUBSCRIBER_PATH_INTERNAL_H

#include <string>

#include <json/json.h>

#include "rfevent/redfish_event.h"

namespace rfevent {

// The Event document of one alert for one subscription, before its URIs become numeric ids.
Json::Value composeSubscriberDocument(const DataEventHeader* header, const std::string& timestamp,
                                      const std::string& id, const Json::Value& subscription);

} // namespace rfevent

#endif
