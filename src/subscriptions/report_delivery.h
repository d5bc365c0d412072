// Metric reports to the push subscriptions that asked for them.
#ifndef RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_H
#define RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_H

#include <string>

#include <json/json.h>

namespace rfevent {

class ParsedReport;

// 0 when the store was read and processed, -1 for a null report or a missing or bad store.
int send_report_to_subscription(const char* report);
// The same for a report parsed once: true when the store was read and processed.
bool send_report_to_subscription(const ParsedReport& parsed);

// True when an element of list has an "@odata.id" equal to definitionUri.
bool isReportMatchTheSubscription(Json::Value list, const std::string& definitionUri);

} // namespace rfevent

#endif
