// The simulator's sandbox root: every file the plug-in reads, laid out at the controller's
// paths below one folder (the plug-in finds it through RFEVENT_ROOT).
#ifndef RFEVENT_SIM_SANDBOX_H
#define RFEVENT_SIM_SANDBOX_H

#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace rfevent::sim {

// Controller paths the simulator writes or watches.
namespace paths {
inline constexpr const char* kSubscriptionStore =
    "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json";
inline constexpr const char* kSseSubscriptions = "/var/run/lumenrest/sse_subscriptions.json";
inline constexpr const char* kSseFifo = "/var/run/lumenrest/SSE_FIFO";
inline constexpr const char* kTelemetryFifo = "/var/run/lumenrest-providers/telemetryfifo";
inline constexpr const char* kTestReportFifo = "/var/run/lumenrest-providers/testreportfifo";
inline constexpr const char* kSseInfraFifo = "/var/run/lumenrest-providers/sseinfranotifyfifo";
inline constexpr const char* kTelemetryDatabase =
    "/var/run/telemetryservice/telemetry_timeseries_database.db";
inline constexpr const char* kSerialLogCapture = "/var/tmp/telemetry/SerialLog.bin";
inline constexpr const char* kCpuRegisterDump = "/flash/data0/IERR_LOG/IERR_LOG1/IERRMSRBIN.bin";
inline constexpr const char* kSerialLogReport = "/var/tmp/telemetry/SerialLog.json";
inline constexpr const char* kCpuRegisterReport = "/var/tmp/telemetry/CpuRegisterDump.json";
inline constexpr const char* kAttributes = "/var/lib/rfevent/attributes.json";
inline constexpr const char* kEventLog = "/var/lib/rfevent/eventlog.jsonl";
inline constexpr const char* kPluginLog = "/var/lib/rfevent/plugin.log";
inline constexpr const char* kPki = "/sim/pki";
} // namespace paths

inline constexpr const char* kMetricReportsRoot = "/redfish/v1/TelemetryService/MetricReports/";
inline constexpr const char* kDefinitionsRoot =
    "/redfish/v1/TelemetryService/MetricReportDefinitions/";

struct DeliverySettings {
    int attempts = 2;
    // 0: no pause between attempts and no transfer time-out. The destinations are the
    // simulator's own, on loopback: a time-out would only cut deliveries short on a slow or
    // busy machine (and one cut short after it arrived is then sent again), while the
    // unreachable destination fails at once without one.
    int intervalSeconds = 0;
    std::string ignoreCertificateErrors = "No"; // verify the destinations' certificates
    std::string hostName = "sim-host.example";
};

class Sandbox {
  public:
    // Uses `root` (created if missing, kept afterwards), or a fresh temporary folder that
    // remove() deletes when `root` is empty. Throws std::runtime_error on failure.
    explicit Sandbox(const std::string& root);
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& root() const { return root_; }
    bool temporary() const { return temporary_; }
    std::string path(const std::string& controllerPath) const { return root_ + controllerPath; }

    void writeAttributes(const DeliverySettings& settings) const;
    void writeSubscriptionStore(const Json::Value& store) const;
    Json::Value readSubscriptionStore() const; // null when absent or unreadable
    void writeSseSubscriptions(const Json::Value& subscriptions) const;
    // Recreates the telemetry database with one row per (name, report JSON) in table "JSON".
    void
    writeTelemetryDatabase(const std::vector<std::pair<std::string, std::string>>& reports) const;
    // The report stored under `name`, or "" when there is none.
    std::string lookUpReport(const std::string& name) const;
    void appendSerialLog(const std::string& text) const;
    void writeCpuRegisterDump(const std::string& bytes) const;
    std::vector<Json::Value> eventLogEntries() const;

    // Deletes a temporary root; a root given by the user stays.
    void remove();

  private:
    std::string root_;
    bool temporary_ = false;
};

// Whole-file helpers.
void writeTextFile(const std::string& path, const std::string& content);
std::string readTextFile(const std::string& path);

} // namespace rfevent::sim

#endif
