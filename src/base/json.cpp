#include "base/json.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>

#include "base/file.h"

namespace rfevent {
namespace {

// The whole content of path; false when it cannot be opened or read.
bool readFileText(const char* path, std::string& text) {
    return readWholeFile(path, text).done();
}

// Parses report text; a report whose top level is not an object has no fields.
bool parseReport(const char* report, Json::Value& root) {
    RF_Json_Reader reader;
    return reader.parse(std::string(report), root) && root.isObject();
}

} // namespace

bool loadJsonObject(SourceSpot spot, const char* path, const JsonFileTexts& texts,
                    Json::Value& root) {
    std::string text;
    if (::access(path, F_OK) != 0) {
        RF_LOG_AT(spot, texts.missingLevel, "[%s():%d]%s", texts.missing);
        return false;
    }
    if (texts.present != nullptr) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]%s", texts.present);
    }
    RF_Json_Reader reader;
    if (!readFileText(path, text) || !reader.parse(std::move(text), root)) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.unparsable);
        return false;
    }
    if (texts.parsed != nullptr) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]%s", texts.parsed);
    }
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    return true;
}

QuietLoad loadJsonObjectQuietly(const char* path, Json::Value& root) {
    std::string text;
    const FileReadOutcome read = readWholeFile(path, text);
    if (!read.done()) {
        return read.error == ENOENT ? QuietLoad::Absent : QuietLoad::Unparsable;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
            return QuietLoad::Unparsable;
        }
    } catch (const std::exception&) {
        return QuietLoad::Unparsable;
    }
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    return QuietLoad::Parsed;
}

std::string writeCompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

std::string getMetricReportDefinition(const char* report) {
    Json::Value root;
    if (!parseReport(report, root)) {
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
    const Json::Value& definition = root["MetricReportDefinition"];
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
    if (!parseReport(report, root)) {
        RF_LOG(kLogError, "[%s():%d]Could not find ReportSequence in event\n");
        return "";
    }
    if (root.isMember("ReportSequence")) {
        RF_LOG(kLogInfo, "[%s():%d]found ReportSequence in Metric Report\n");
        return root["ReportSequence"].asString();
    }
    return "";
}

} // namespace rfevent

RF_Json_Reader::RF_Json_Reader() = default;
RF_Json_Reader::~RF_Json_Reader() = default;

namespace {

// Runs one parse of the library. Every failure it reports, and anything it throws (too deep
// nesting, for one), becomes a logged failed parse: nothing thrown reaches the caller.
template <typename Parse> bool parseReportingErrors(rfevent::SourceSpot spot, Parse parse) {
    std::string errors;
    bool ok = false;
    try {
        ok = parse(errors);
    } catch (const std::exception& error) {
        errors = error.what();
    }
    if (!errors.empty()) {
        RF_LOG_AT(spot, rfevent::kLogError, "[%s():%d]Errors found : %s", errors.c_str());
    }
    return ok;
}

} // namespace

bool RF_Json_Reader::parse(std::string text, Json::Value& root, bool collectComments) {
    (void)collectComments;
    RF_ENTER();
    bool ok = parseReportingErrors(RF_HERE, [&](std::string& errors) {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    });
    RF_EXIT();
    return ok;
}

bool RF_Json_Reader::parse(std::ifstream& in, Json::Value& root, bool collectComments) {
    (void)collectComments;
    RF_ENTER();
    bool ok = parseReportingErrors(RF_HERE, [&](std::string& errors) {
        Json::CharReaderBuilder builder;
        return Json::parseFromStream(builder, in, &root, &errors);
    });
    RF_EXIT();
    return ok;
}
