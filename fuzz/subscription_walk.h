// Subscription stores and SSE subscription files of any shape, walked by every delivery path:
// the alert's subscriber and SSE paths (no retry attempts, so nothing is sent over the
// network), the selection of a metric report's targets, and the SSE filter match. A key of
// the wrong JSON type must cost only its own subscription, never an exception.
// Input: store text NUL SSE subscriptions text NUL metric report text.
#ifndef RFEVENT_FUZZ_SUBSCRIPTION_WALK_H
#define RFEVENT_FUZZ_SUBSCRIPTION_WALK_H

#include <exception>
#include <list>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/paths.h"
#include "fuzz_support.h"
#include "rfevent/redfish_event.h"
#include "sse/filter.h"
#include "sse/filter_internal.h"
#include "subscriptions/report_delivery_internal.h"
#include "subscriptions/store.h"

namespace rfevent::fuzz {

// No retry attempts: the single POST sends nothing, so arbitrary destinations stay unreached.
inline void prepareWalkSettings() {
    static std::string preparedFor;
    (void)writeDeliverySettingsOnce(preparedFor, 0);
}

inline int subscriptionWalk(const uint8_t* data, std::size_t size) {
    ensureRoot();
    prepareWalkSettings();
    const std::vector<std::string> in = pieces(data, size, 3);
    const std::string report = cText(in[2]);
    writeWhole(fixedPath(FixedPath::SubscriptionStore), in[0]);
    writeWhole(fixedPath(FixedPath::SseSubscriptions), in[1]);

    // The alert entry runs both alert paths; it lets nothing escape.
    DataEventHeader header{};
    header.severity = 1;
    int context = 0;
    sendRedFishEventAlert(&header, &context);

    // A report whose fields have the wrong type raises the library's type error here, by
    // design: the caller's guard drops that one report. Only a subscription must never throw.
    Json::Value store;
    RF_Json_Reader reader;
    if (reader.parse(in[0], store) && store.isObject()) {
        std::vector<DeliveryTarget> targets;
        try {
            selectTargets(store, ParsedReport(report.c_str()), targets);
        } catch (const std::exception&) {
        }
        removeFromSubscription(targets);
    }
    std::list<std::string> messages;
    try {
        (void)filterEventsSSE(report.c_str(), messages, "<id:1>:");
    } catch (const std::exception&) {
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_SUBSCRIPTION_WALK_H
