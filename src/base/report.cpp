#include "base/report.h"
#include "base/report_internal.h"

#include <cstring>

#include <json/json.h>

#include "base/builtin_reports.h"
#include "base/json.h"
#include "base/log.h"

namespace rfevent {

namespace {

// The two accessors' names: their lines are written under them wherever a field is read.
constexpr SourceSpot kDefinitionSpot = {"getMetricReportDefinition", __LINE__};
constexpr SourceSpot kSequenceSpot = {"getReportSequence", __LINE__};

} // namespace

ParsedReport::ParsedReport(const char* text) : text_(text) {
    if (text == nullptr) {
        return;
    }
    Json::Value root;
    // A report whose top level is not an object has no fields.
    if (!parseJsonQuietly(text, std::strlen(text), root, parseErrors_) || !root.isObject()) {
        return;
    }
    findDefinition(&root);
    findSequence(&root);
}

void ParsedReport::findDefinition(const void* parsed) {
    const Json::Value& root = *static_cast<const Json::Value*>(parsed);
    definition_ = Definition::NameThrew;
    try {
        if (!root.isMember("MetricReportDefinition")) {
            const BuiltInReport* builtIn = builtInReportNamed(root["Name"].asString());
            definition_ = builtIn != nullptr ? Definition::ByName : Definition::Missing;
            definitionUri_ = builtIn != nullptr ? builtIn->definitionUri : "";
            return;
        }
        definition_ = Definition::Threw;
        const Json::Value& definition = root["MetricReportDefinition"];
        if (!definition.isMember("@odata.id")) {
            definition_ = Definition::NoId;
            return;
        }
        const Json::Value& id = definition["@odata.id"];
        definition_ = id.isString() ? Definition::Found : Definition::IdNotText;
        definitionUri_ = id.isString() ? id.asString() : "";
    } catch (...) {
        definitionError_ = std::current_exception();
    }
}

void ParsedReport::findSequence(const void* parsed) {
    const Json::Value& root = *static_cast<const Json::Value*>(parsed);
    if (!root.isMember("ReportSequence")) {
        sequence_ = Sequence::Missing;
        return;
    }
    sequence_ = Sequence::Threw;
    try {
        sequenceText_ = root["ReportSequence"].asString();
        sequence_ = Sequence::Found;
    } catch (...) {
        sequenceError_ = std::current_exception();
    }
}

const std::string& ParsedReport::definitionUri() const {
    writeParseLines(parseErrors_);
    if (definition_ == Definition::NameThrew) {
        std::rethrow_exception(definitionError_);
    }
    if (definition_ == Definition::Missing) {
        RF_LOG_AT(kDefinitionSpot, kLogError,
                  "[%s():%d]Could not find MetricReportDefinition Object in event\n");
    }
    // Unparsed and Missing hold "", ByName its type's definition: no further line.
    if (definition_ < Definition::Threw) {
        return definitionUri_;
    }
    RF_LOG_AT(kDefinitionSpot, kLogInfo, "[%s():%d]found MetricReportDefinition in event\n");
    if (definition_ == Definition::Threw) {
        std::rethrow_exception(definitionError_);
    }
    if (definition_ != Definition::NoId) {
        RF_LOG_AT(kDefinitionSpot, kLogError,
                  "[%s():%d]foud MetricReportDefinition OdataId in event\n");
    }
    if (definition_ == Definition::Found) {
        RF_LOG_AT(kDefinitionSpot, kLogInfo, "[%s():%d]OdataId = %s\n", definitionUri_.c_str());
    }
    return definitionUri_;
}

const std::string& ParsedReport::sequence() const {
    writeParseLines(parseErrors_);
    if (sequence_ == Sequence::Unparsed) {
        RF_LOG_AT(kSequenceSpot, kLogError, "[%s():%d]Could not find ReportSequence in event\n");
    }
    // Unparsed and Missing hold "".
    if (sequence_ < Sequence::Threw) {
        return sequenceText_;
    }
    RF_LOG_AT(kSequenceSpot, kLogInfo, "[%s():%d]found ReportSequence in Metric Report\n");
    if (sequence_ == Sequence::Threw) {
        std::rethrow_exception(sequenceError_);
    }
    return sequenceText_;
}

std::string getMetricReportDefinition(const char* report) {
    return ParsedReport(report).definitionUri();
}

std::string getReportSequence(const char* report) {
    return ParsedReport(report).sequence();
}

} // namespace rfevent
