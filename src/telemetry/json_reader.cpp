#include "telemetry/json_reader.h"

#include <memory>

#include <json/json.h>

#include "platform/log.h"

using rfevent::kLogDebug;
using rfevent::kLogError;
using rfevent::kLogInfo;

RF_Json_Reader::RF_Json_Reader() = default;
RF_Json_Reader::~RF_Json_Reader() = default;

bool RF_Json_Reader::parse(std::string text, Json::Value& root, bool collectComments) {
    (void)collectComments;
    RF_ENTER();
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    bool ok = reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    if (!errors.empty()) {
        RF_LOG(kLogError, "[%s():%d]Errors found : %s", errors.c_str());
    }
    RF_EXIT();
    return ok;
}

bool RF_Json_Reader::parse(std::ifstream& in, Json::Value& root, bool collectComments) {
    (void)collectComments;
    RF_ENTER();
    Json::CharReaderBuilder builder;
    std::string errors;
    bool ok = Json::parseFromStream(builder, in, &root, &errors);
    if (!errors.empty()) {
        RF_LOG(kLogError, "[%s():%d]Errors found : %s", errors.c_str());
    }
    RF_EXIT();
    return ok;
}

std::string getMetricReportDefinition(const char* report) {
    Json::Value root;
    RF_Json_Reader reader;
    if (!reader.parse(std::string(report), root)) {
        return "";
    }
    if (!root.isMember("MetricReportDefinition")) {
        std::string name = root["Name"].asString();
        if (name == "CPURegisters Report") {
            return "/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters";
        }
        if (name == "SerialLog Report") {
            return "/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog";
        }
        RF_LOG(kLogError, "[%s():%d]Could not find MetricReportDefinition Object in event\n");
        return "";
    }
    RF_LOG(kLogInfo, "[%s():%d]found MetricReportDefinition in event\n");
    Json::Value definition = root["MetricReportDefinition"];
    if (definition.isMember("@odata.id")) {
        RF_LOG(kLogError, "[%s():%d]foud MetricReportDefinition OdataId in event\n");
        const Json::Value& id = definition["@odata.id"];
        if (id.isString()) {
            RF_LOG(kLogInfo, "[%s():%d]OdataId = %s\n", id.asCString());
            return id.asString();
        }
    }
    return "";
}

std::string getReportSequence(const char* report) {
    Json::Value root;
    RF_Json_Reader reader;
    if (!reader.parse(std::string(report), root)) {
        RF_LOG(kLogError, "[%s():%d]Could not find ReportSequence in event\n");
        return "";
    }
    if (root.isMember("ReportSequence")) {
        RF_LOG(kLogInfo, "[%s():%d]found ReportSequence in Metric Report\n");
        return root["ReportSequence"].asString();
    }
    return "";
}
