#include "sample_data.h"

#include <ctime>
#include <set>
#include <sstream>

#include "sandbox.h"

namespace rfevent::sim {

namespace {

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

Json::Value parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    if (!Json::parseFromStream(builder, in, &value, &errors)) {
        return Json::Value();
    }
    return value;
}

std::string utcNow() {
    std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

Json::Value metricReport(const std::string& name, const std::string& sequence,
                         const std::vector<std::pair<std::string, std::string>>& metrics) {
    Json::Value report(Json::objectValue);
    report["@odata.id"] = kMetricReportsRoot + name;
    report["@odata.type"] = "#MetricReport.v1_5_0.MetricReport";
    report["Id"] = name;
    report["Name"] = name + " Metric Report";
    report["ReportSequence"] = sequence;
    report["Timestamp"] = utcNow();
    report["MetricReportDefinition"]["@odata.id"] = kDefinitionsRoot + name;
    Json::Value values(Json::arrayValue);
    for (const auto& [id, value] : metrics) {
        Json::Value metric(Json::objectValue);
        metric["MetricId"] = id;
        metric["MetricValue"] = value;
        metric["Timestamp"] = report["Timestamp"];
        values.append(metric);
    }
    report["MetricValues"] = values;
    return report;
}

Json::Value subscription(const std::string& destination, const std::string& format,
                         const std::string& context, const std::string& policy) {
    Json::Value sub(Json::objectValue);
    sub["Destination"] = destination;
    sub["EventFormatType"] = format;
    sub["EventTypes"].append(format == "MetricReport" ? "MetricReport" : "Alert");
    sub["Context"] = context;
    sub["Protocol"] = "Redfish";
    sub["SubscriptionType"] = "RedfishEvent";
    sub["DeliveryRetryPolicy"] = policy;
    sub["HttpHeaders"] = Json::Value(Json::arrayValue);
    return sub;
}

} // namespace

Json::Value sampleSubscriptionStore(const DestinationUrls& urls) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription(urls.alerts, "Event", "sim-alerts", "SuspendRetries");
    Json::Value header(Json::objectValue);
    header["X-Sim-Token"] = "alerts-1";
    store["1"]["HttpHeaders"].append(header);
    store["2"] =
        subscription(urls.reports, "MetricReport", "sim-all-reports", "TerminateAfterRetries");
    store["3"] = subscription(urls.power, "MetricReport", "sim-power-reports", "SuspendRetries");
    Json::Value definition(Json::objectValue);
    definition["@odata.id"] = std::string(kDefinitionsRoot) + "PowerMetrics";
    store["3"]["MetricReportDefinitions"].append(definition);
    store[kUnreachableSubscription] =
        subscription(urls.unreachable, "Event", "sim-unreachable", "SuspendRetries");
    // A collector that refuses every report (413, as with a body limit): counted as delivered,
    // so no policy applies; the delivery status file and the log say it.
    store["5"] =
        subscription(urls.refusing, "MetricReport", "sim-refusing-reports", "SuspendRetries");
    return store;
}

Json::Value sampleSseSubscriptions() {
    Json::Value clients(Json::objectValue);
    clients["sse-alerts"]["Event-type"] = kSseAlertKey;
    clients["sse-alerts"]["EventTypes"].append("Alert");
    clients["sse-all-reports"]["Event-type"] = kSseAllReports;
    clients["sse-cpu"]["Event-type"] = kSseCpuFilter;
    clients["sse-power"]["Event-type"] = kSsePowerFilter;
    clients["sse-serial"]["Event-type"] = kSseSerialFilter;
    return clients;
}

std::vector<std::string> sseKeysForDefinition(const Json::Value& sseSubscriptions,
                                              const std::string& definitionUri) {
    std::vector<std::string> keys;
    std::set<std::string> seen;
    if (definitionUri.empty() || !sseSubscriptions.isObject()) {
        return keys;
    }
    for (const std::string& id : sseSubscriptions.getMemberNames()) {
        const Json::Value& filter = sseSubscriptions[id]["Event-type"];
        if (!filter.isString()) {
            continue;
        }
        std::string text = filter.asString();
        bool selects = text == kSseAllReports ||
                       text == "MetricReportDefinition eq '" + definitionUri + "'" ||
                       text == "MetricReportDefinition eq " + definitionUri;
        if (selects && seen.insert(text).second) {
            keys.push_back(text);
        }
    }
    return keys;
}

std::vector<std::pair<std::string, std::string>> sampleDatabaseReports() {
    return {
        {"PowerMetrics",
         compact(metricReport(
             "PowerMetrics", "7",
             {{"SystemInputPower", "412"}, {"PSU1InputPower", "205"}, {"PSU2InputPower", "207"}}))},
        {"ThermalMetrics", compact(metricReport("ThermalMetrics", "12",
                                                {{"InletTemp", "23"}, {"ExhaustTemp", "38"}}))},
    };
}

std::string sampleTestReport() {
    return compact(metricReport("TestMetrics", "1", {{"TestMetricId", "42"}}));
}

std::string sampleSerialLogLines() {
    return "[    0.000000] Booting Linux on physical CPU 0x0\n"
           "[    2.318442] systemd[1]: Reached target Basic System.\n"
           "host login: \n";
}

std::string sampleCpuRegisterDump() {
    // 4000 bytes of a fixed pattern: large enough that the report travels in several pieces.
    std::string dump(4000, '\0');
    unsigned value = 0x1234567u;
    for (char& byte : dump) {
        value = value * 1103515245u + 12345u;
        byte = static_cast<char>(value >> 16);
    }
    return dump;
}

std::string reportDefinition(const std::string& reportJson) {
    Json::Value report = parse(reportJson);
    if (!report.isObject()) {
        return "";
    }
    if (!report.isMember("MetricReportDefinition")) {
        std::string name = report.get("Name", "").isString() ? report["Name"].asString() : "";
        if (name == "CPURegisters Report" || name == "SerialLog Report") {
            return kDefinitionsRoot + name.substr(0, name.size() - 7);
        }
        return "";
    }
    const Json::Value& definition = report["MetricReportDefinition"];
    if (!definition.isObject() || !definition["@odata.id"].isString()) {
        return "";
    }
    return definition["@odata.id"].asString();
}

std::string reportSequence(const std::string& reportJson) {
    Json::Value report = parse(reportJson);
    if (!report.isObject() || !report.isMember("ReportSequence") ||
        report["ReportSequence"].isObject() || report["ReportSequence"].isArray()) {
        return "";
    }
    return report["ReportSequence"].asString();
}

} // namespace rfevent::sim
