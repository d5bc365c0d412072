// The whole log of a report's fan-out to push subscriptions and SSE clients, line numbers
// left out, against the lines the fan-out wrote when each filter parsed the report itself
// (tests/publish/fan_out_log.expected, recorded before the report was parsed only once).
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/report.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "publish/publish.h"

namespace {

using rfevent::testkit::LogCapture;
using rfevent::testkit::SseReceiver;

const std::string kDefinitions = "/redfish/v1/TelemetryService/MetricReportDefinitions/";

Json::Value links(const std::string& uri) {
    Json::Value list(Json::arrayValue);
    list[0]["@odata.id"] = uri;
    return list;
}

// Push subscriptions that read the report's definition but take none of these reports, so the
// log holds no transfer.
void writeStore() {
    Json::Value store(Json::objectValue);
    Json::Value filtered(Json::objectValue);
    filtered["EventFormatType"] = "MetricReport";
    filtered["Destination"] = "https://127.0.0.1:9/a";
    filtered["MetricReportDefinitions"] = links(kDefinitions + "Other");
    store["a1"] = filtered;
    Json::Value origin = filtered;
    origin.removeMember("MetricReportDefinitions");
    origin["OriginResources"] = links(kDefinitions + "Elsewhere");
    store["a2"] = origin;
    Json::Value disabled = filtered;
    disabled["SubscriptionStateAfterRetry"] = "Disabled";
    store["a3"] = disabled;
    Json::Value events = filtered;
    events["EventFormatType"] = "Event";
    store["a4"] = events;
    rfevent::testkit::writeSubscriptionStore(store);
}

void writeClients() {
    const std::vector<std::string> filters = {
        "EventFormatType eq MetricReport", "MetricReportDefinition eq '" + kDefinitions + "Power'",
        "(MetricReportDefinition eq '/x') or MetricReportDefinition eq " + kDefinitions + "Power",
        "MetricReportDefinition eq '/y'"};
    Json::Value clients(Json::objectValue);
    for (std::size_t i = 0; i < filters.size(); ++i) {
        clients["c" + std::to_string(i)]["Event-type"] = filters[i];
    }
    rfevent::testkit::writeSseSubscriptions(clients);
}

// The reports: with definition and sequence, not JSON, definition by name only, a number
// sequence and a definition that is not text, and a top level that is not an object.
std::vector<std::string> reports() {
    return {
        "{\"Id\":\"Power\",\"MetricReportDefinition\":{\"@odata.id\":\"" + kDefinitions +
            "Power\"},\"ReportSequence\":\"7\",\"MetricValues\":[]}",
        "{\"Id\":\"Broken\",",
        "{\"Name\":\"SerialLog Report\",\"ReportSequence\":3}",
        "{\"MetricReportDefinition\":{\"@odata.id\":5},\"ReportSequence\":\"9\"}",
        "[1,2]",
    };
}

// The report handed to the publish point, as each report source does.
void fanOut(const std::string& report) {
    rfevent::publishReport(rfevent::ParsedReport(report.c_str()));
}

std::string withoutLineNumbers(const std::string& line) {
    static const std::regex number(":[0-9]+\\]");
    return std::regex_replace(line, number, ":]");
}

std::vector<std::string> expectedLines() {
    std::ifstream in(std::string(RFEVENT_TESTS_DIR) + "/publish/fan_out_log.expected");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(FanOutLog, EveryLineOfTheFanOutStaysInItsPlace) {
    rfevent::testkit::resetSandbox();
    writeStore();
    writeClients();
    SseReceiver receiver({"", SseReceiver::portFromEnvironment()});
    LogCapture log;
    // Each piece is sent and its lines written before the fan-out returns.
    for (const std::string& report : reports()) {
        fanOut(report);
    }
    std::vector<std::string> lines;
    for (const std::string& line : log.lines()) {
        lines.push_back(withoutLineNumbers(line));
    }
    if (const char* out = std::getenv("RFEVENT_RECORD_FAN_OUT_LOG")) {
        std::ofstream file(out);
        for (const std::string& line : lines) {
            file << line << '\n';
        }
    }
    EXPECT_EQ(lines, expectedLines());
}

} // namespace
