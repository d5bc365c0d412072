// What the simulated controller holds: subscriptions, SSE clients, reports and captures.
#ifndef RFEVENT_SIM_SAMPLE_DATA_H
#define RFEVENT_SIM_SAMPLE_DATA_H

#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace rfevent::sim {

// Destinations (one HTTPS receiver each) and the ids of their push subscriptions.
inline constexpr const char* kAlertsDestination = "alerts";           // subscription "1"
inline constexpr const char* kReportsDestination = "reports";         // subscription "2"
inline constexpr const char* kPowerDestination = "power-reports";     // subscription "3"
inline constexpr const char* kUnreachableDestination = "unreachable"; // subscription "4"
inline constexpr const char* kUnreachableSubscription = "4";
inline constexpr const char* kRefusingDestination = "refusing"; // subscription "5", answers 413

// SSE keys: the alert frame key and the SSE clients' filter texts.
inline constexpr const char* kSseAlertKey = "EventFormatType eq Event";
inline constexpr const char* kSseAllReports = "EventFormatType eq MetricReport";
inline constexpr const char* kSsePowerFilter =
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics'";
inline constexpr const char* kSseSerialFilter =
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog'";
inline constexpr const char* kSseCpuFilter =
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters'";

struct DestinationUrls {
    std::string alerts;
    std::string reports;
    std::string power;
    std::string unreachable;
    std::string refusing;
};

Json::Value sampleSubscriptionStore(const DestinationUrls& urls);
Json::Value sampleSseSubscriptions();
// Filter texts of the SSE clients that select a report with this definition URI.
std::vector<std::string> sseKeysForDefinition(const Json::Value& sseSubscriptions,
                                              const std::string& definitionUri);

// Reports of the telemetry database: (name, JSON).
std::vector<std::pair<std::string, std::string>> sampleDatabaseReports();
std::string sampleTestReport();
std::string sampleSerialLogLines();
std::string sampleCpuRegisterDump();

// The definition URI of a report text ("" when there is none), as the plug-in reads it.
std::string reportDefinition(const std::string& reportJson);
std::string reportSequence(const std::string& reportJson);

} // namespace rfevent::sim

#endif
