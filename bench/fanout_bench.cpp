// Instructions per metric report fanned out to 30 push subscriptions with definition filters
// and 10 SSE clients with filters, counted by callgrind with the network left out (the parallel
// POST pass and the SSE pieces), against a floor that parses the report once and runs the same
// filters. Both sides read the subscription store and the SSE subscription file for every report,
// as the protocol does, and write the level-2 line the protocol writes at every read of the
// report's definition, through the same logger.
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report.h"
#include "base/report_internal.h"
#include "cases.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "platform/platform.h"
#include "publish/publish.h"

namespace rfevent::bench {

namespace {

constexpr int kReports = 200;
constexpr int kPushSubscriptions = 30;
constexpr int kSseClients = 10;

const std::string kDefinitions = "/redfish/v1/TelemetryService/MetricReportDefinitions/";

std::string sampleReport() {
    Json::Value report(Json::objectValue);
    report["@odata.id"] = "/redfish/v1/TelemetryService/MetricReports/PowerMetrics";
    report["Id"] = "PowerMetrics";
    report["ReportSequence"] = "1207";
    report["MetricReportDefinition"]["@odata.id"] = kDefinitions + "PowerMetrics";
    for (int i = 0; i < 8; ++i) {
        Json::Value value(Json::objectValue);
        value["MetricId"] = "SystemInputPower";
        value["MetricValue"] = std::to_string(310 + i);
        value["MetricProperty"] = "/redfish/v1/Chassis/System.Embedded.1/Power#/PowerControl/0";
        report["MetricValues"].append(value);
    }
    return writeCompactJson(report);
}

// Thirty subscriptions that take the report by its definition (among others they name), at a
// closed port: their POSTs fail at once, outside the count.
void writeStore() {
    const std::string destination =
        "https://127.0.0.1:" + std::to_string(testkit::HttpsServer::closedLoopbackPort());
    Json::Value store(Json::objectValue);
    for (int i = 0; i < kPushSubscriptions; ++i) {
        Json::Value subscription(Json::objectValue);
        subscription["Destination"] = destination + "/reports/" + std::to_string(i);
        subscription["EventFormatType"] = "MetricReport";
        subscription["DeliveryRetryPolicy"] = "RetryForever";
        subscription["MetricReportDefinitions"][0]["@odata.id"] = kDefinitions + "Thermal";
        subscription["MetricReportDefinitions"][1]["@odata.id"] = kDefinitions + "PowerMetrics";
        store["r" + std::to_string(1000 + i)] = subscription;
    }
    testkit::writeSubscriptionStore(store);
}

// Ten clients: the whole-match filter, definition filters of every form, and some that do not
// take the report.
void writeSseClients() {
    const std::string power = kDefinitions + "PowerMetrics";
    const std::vector<std::string> filters = {
        "EventFormatType eq MetricReport",
        "MetricReportDefinition eq '" + power + "'",
        "(MetricReportDefinition eq '" + power + "')",
        "MetricReportDefinition eq '" + kDefinitions + "Thermal' or MetricReportDefinition eq " +
            power,
        "MetricReportDefinition eq '" + kDefinitions + "Thermal'",
        "MetricReportDefinition eq '" + kDefinitions + "SerialLog'",
        "MetricReportDefinition eq '" + kDefinitions + "CPURegisters'",
        "(MetricReportDefinition eq '" + kDefinitions + "Memory')",
        "MetricReportDefinition eq '" + power + "'",
        "MetricReportDefinition eq '" + kDefinitions + "Fans' or MetricReportDefinition eq '" +
            kDefinitions + "Storage'"};
    Json::Value clients(Json::objectValue);
    for (int i = 0; i < kSseClients; ++i) {
        clients["client" + std::to_string(i)]["Event-type"] = filters[static_cast<std::size_t>(i)];
    }
    testkit::writeSseSubscriptions(clients);
}

bool parseFile(const char* path, Json::Value& root) {
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
}

// The line the protocol writes at every read of the report's definition.
void writeDefinitionLine() {
    orvaprintf(kLogError, kLogModule, "[%s():%d]foud MetricReportDefinition OdataId in event\n",
               "getMetricReportDefinition", __LINE__);
}

// What a push subscription selected for the report keeps: its destination, id, retry policy
// and a copy of the subscription.
struct FloorTarget {
    std::string destination;
    std::string id;
    std::string policy;
    Json::Value subscription;
};

std::size_t floorPush(const std::string& definition) {
    Json::Value store;
    if (!parseFile(fixedPath(FixedPath::SubscriptionStore), store)) {
        return 0;
    }
    std::vector<FloorTarget> targets;
    for (auto it = store.begin(); it != store.end(); ++it) {
        const Json::Value& subscription = *it;
        if (subscription["EventFormatType"].asString() != "MetricReport") {
            continue;
        }
        writeDefinitionLine();
        for (const Json::Value& link : subscription["MetricReportDefinitions"]) {
            if (link["@odata.id"].asString() == definition) {
                targets.push_back({subscription["Destination"].asString(), it.name(),
                                   subscription["DeliveryRetryPolicy"].asString(), subscription});
                break;
            }
        }
    }
    return targets.size();
}

// One pair of enclosing characters off, when text has it.
std::string strip(const std::string& text, char open, char close) {
    if (text.size() >= 2 && text.front() == open && text.back() == close) {
        return text.substr(1, text.size() - 2);
    }
    return text;
}

bool floorTermSelects(const std::string& term, const std::string& definition) {
    static const std::string kLiteral = "MetricReportDefinition eq ";
    const std::size_t at = term.find(kLiteral);
    if (at > 2) {
        return false;
    }
    const std::string core = strip(term, '(', ')');
    const std::string value = core.size() > kLiteral.size() ? core.substr(kLiteral.size()) : "";
    return strip(strip(value, '(', ')'), '\'', '\'') == definition;
}

bool floorFilterSelects(const std::string& filter, const std::string& definition) {
    if (filter == "EventFormatType eq MetricReport") {
        return true;
    }
    for (std::size_t start = 0; start < filter.size();) {
        std::size_t end = filter.find(" or ", start);
        end = end == std::string::npos ? filter.size() : end;
        if (end > start && floorTermSelects(filter.substr(start, end - start), definition)) {
            return true;
        }
        start = end + 4;
    }
    return false;
}

std::size_t floorSse(const std::string& report, const std::string& definition,
                     const std::string& sequence) {
    Json::Value clients;
    if (!parseFile(fixedPath(FixedPath::SseSubscriptions), clients)) {
        return 0;
    }
    const std::string tail = "<id:" + sequence + ">:" + report;
    std::vector<std::string> messages;
    for (const Json::Value& client : clients) {
        const std::string filter = client["Event-type"].asString();
        if (floorFilterSelects(filter, definition)) {
            std::string message = filter;
            message.append(1, '=').append(tail);
            if (std::find(messages.begin(), messages.end(), message) == messages.end()) {
                messages.push_back(std::move(message));
            }
        }
    }
    return messages.size();
}

// The report parsed once; its definition and sequence handed to the same filters.
std::size_t floorFanOut(const std::string& report) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    reader->parse(report.data(), report.data() + report.size(), &root, &errors);
    const std::string definition = root["MetricReportDefinition"]["@odata.id"].asString();
    const std::string sequence = root["ReportSequence"].asString();
    const std::size_t pushed = floorPush(definition);
    writeDefinitionLine();
    return pushed + floorSse(report, definition, sequence);
}

void fanOut(bool plugin) {
    const std::string report = sampleReport();
    std::size_t selected = 0;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < kReports; ++i) {
        if (plugin) {
            publishReport(ParsedReport(report.c_str()));
        } else {
            selected += floorFanOut(report);
        }
    }
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("selected %zu\n", selected / kReports);
}

} // namespace

int runFanOutChild(const std::string& name) {
    if (name != "fanout-plugin" && name != "fanout-floor") {
        return 2;
    }
    fanOut(name == "fanout-plugin");
    return 0;
}

void runFanOutCases(const Context& context, Table& table) {
    testkit::writeDeliveryAttributes(1, 1, "Yes");
    writeStore();
    writeSseClients();
    // The network: the parallel POST pass and the SSE pieces.
    const std::vector<std::string> network = {"rfevent::sendMultiperform*",
                                              "rfevent::sendReportMessage*"};
    const double plugin = underCallgrind(context, "fanout-plugin", network);
    const double floor = underCallgrind(context, "fanout-floor", network);
    table.add({"report fanned out to 30 push + 10 SSE filters, no network (callgrind)",
               plugin / kReports, floor / kReports, Unit::Instructions, true, kInstructionBound});
}

} // namespace rfevent::bench
