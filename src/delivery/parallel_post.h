// One POST of one body to up to 30 destinations at once; no retries.
#ifndef RFEVENT_DELIVERY_PARALLEL_POST_H
#define RFEVENT_DELIVERY_PARALLEL_POST_H

#include <vector>

#include "delivery/target.h"

namespace rfevent {

// POSTs body to every target at once. The outcome of each target is in its failureCount (one
// more for each failed transfer) and lastFailure; a pass refused at set-up sends nothing and
// leaves every target delivered. At most 30 targets.
void sendMultiperform(const char* body, std::vector<DeliveryTarget>& targets);

} // namespace rfevent

#endif
