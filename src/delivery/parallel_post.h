// One POST of one body to up to 30 destinations at once; no retries.
#ifndef RFEVENT_DELIVERY_PARALLEL_POST_H
#define RFEVENT_DELIVERY_PARALLEL_POST_H

#include <vector>

#include "delivery/target.h"

namespace rfevent {

// failureCount of each target whose transfer failed goes up by one. At most 30 targets.
void sendMultiperform(const char* body, std::vector<DeliveryTarget*>& targets);

// Adds one failure to the first target whose destination equals url, both read as libcurl
// writes them (so "https://host:port" equals the effective URL "https://host:port/").
void countDeliveryFailure(std::vector<DeliveryTarget*>& targets, const char* url);

} // namespace rfevent

#endif
