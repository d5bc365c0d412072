// Metric reports to the push subscriptions that asked for them.
#ifndef RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_H
#define RFEVENT_SUBSCRIPTIONS_REPORT_DELIVERY_H

#include <string>

#include <json/json.h>

namespace rfevent {

class ParsedReport;

// A report parsed once: true when the store was read and processed.
bool send_report_to_subscription(const ParsedReport& parsed);

} // namespace rfevent

#endif
