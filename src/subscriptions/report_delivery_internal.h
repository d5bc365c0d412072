// Inside metric report delivery, for its tests and fuzz target.
#ifndef RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_INTERNAL_H
#define RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_INTERNAL_H

#include <string>
#include <vector>

#include <json/json.h>

#include "base/report.h"
#include "delivery/target.h"

namespace rfevent {

// The report as text: 0 when the store was read and processed, -1 for a null report or a
// missing or bad store.
int send_report_to_subscription(const char* report);

// True when an element of list has an "@odata.id" equal to definitionUri.
bool isReportMatchTheSubscription(Json::Value list, const std::string& definitionUri);

// Appends a delivery target for every subscription of store that wants report, in the
// store's member order.
void selectTargets(const Json::Value& store, const ParsedReport& report,
                   std::vector<DeliveryTarget>& targets);

} // namespace rfevent

#endif
