#include "publish/publish.h"
#include "publish/channels_internal.h"

#include "base/builtin_reports.h"
#include "base/guard.h"
#include "base/report.h"
#include "events/sse_path.h"
#include "events/subscriber_path.h"
#include "sse/filter.h"
#include "subscriptions/report_delivery.h"

namespace rfevent {

namespace {

void reportToSubscribers(const ParsedReport& report) {
    send_report_to_subscription(report);
}

void builtInToSubscribers(const ParsedReport& report, const BuiltInReport& /*type*/) {
    send_report_to_subscription(report);
}

void reportToSse(const ParsedReport& report) {
    send_report_to_sse(report);
}

// Built-in reports go out under their type's fixed key, to every client of that key.
void builtInToSse(const ParsedReport& report, const BuiltInReport& type) {
    sendLog_to_sse(report.text(), type);
}

} // namespace

std::vector<Channel> defaultChannels() {
    return {
        {"sendRedFishEvent dropped the alert", sendRedFishEvent, reportToSubscribers,
         builtInToSubscribers, false},
        {"sendRedFishEvent_SSE dropped the alert", sendRedFishEvent_SSE, reportToSse, builtInToSse,
         true},
    };
}

std::vector<Channel> g_channels = defaultChannels();

void publishAlert(SourceSpot spot, DataEventHeader* header, void* eventContext) {
    for (const Channel& channel : g_channels) {
        guarded(spot, channel.alertDropped, [&] { channel.alert(header, eventContext); });
    }
}

void publishReport(const ParsedReport& report) {
    for (const Channel& channel : g_channels) {
        channel.report(report);
    }
}

void publishBuiltInReport(const ParsedReport& report, const BuiltInReport& type) {
    for (const bool first : {true, false}) {
        for (const Channel& channel : g_channels) {
            if (channel.servesBuiltInFirst == first) {
                channel.builtInReport(report, type);
            }
        }
    }
}

} // namespace rfevent
