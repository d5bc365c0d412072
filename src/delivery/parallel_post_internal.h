// Inside the parallel POST, for its tests.
#ifndef RFEVENT_DELIVERY_PARALLEL_POST_INTERNAL_H
#define RFEVENT_DELIVERY_PARALLEL_POST_INTERNAL_H

#include <curl/curl.h>

#include <vector>

#include "delivery/target.h"

namespace rfevent {

// Adds one failure with its result to the first target whose destination equals url, both
// read as libcurl writes them (so "https://host:port" equals the effective URL
// "https://host:port/").
void countDeliveryFailure(std::vector<DeliveryTarget>& targets, const char* url, CURLcode result);

} // namespace rfevent

#endif
