// Inside metric report delivery, for its tests and fuzz target.
#ifndef RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_INTERNAL_H
#define RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_INTERNAL_H

#include <vector>

#include <json/json.h>

#include "base/report.h"
#include "delivery/target.h"

namespace rfevent {

// Appends a delivery target for every subscription of store that wants report, in the
// store's member order.
void selectTargets(const Json::Value& store, const ParsedReport& report,
                   std::vector<DeliveryTarget>& targets);

} // namespace rfevent

#endif
