#include "sse/filter.h"

#include <algorithm>
#include <map>

#include <json/json.h>

#include "base/builtin_reports.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report.h"
#include "sse/filter_internal.h"
#include "sse/message.h"
#include "sse/transport.h"

namespace rfevent {

namespace {

const rfevent::JsonFileTexts kSseSubscriptionsFile = {
    kLogDebug, "Subscription file does not existn\n", "Subscription file existn\n",
    "Fail to parse event subscription file\n", nullptr};

const char kWholeMatchFilter[] = "EventFormatType eq MetricReport";
const char kDefinitionLiteral[] = "MetricReportDefinition eq ";
constexpr std::size_t kDefinitionLiteralLength = sizeof kDefinitionLiteral - 1; // 26
constexpr std::size_t kLatestLiteralStart = 2;

void addUnique(std::list<std::string>& messages, const std::string& message) {
    if (std::find(messages.begin(), messages.end(), message) == messages.end()) {
        messages.push_back(message);
    }
}

// True when one " or " term of a filter names the report's definition URI. The value is taken
// at a fixed offset of the term with its parentheses removed, wherever the literal was found.
bool termSelects(const std::string& term, const std::string& definitionUri) {
    std::size_t at = term.find(kDefinitionLiteral);
    if (at > kLatestLiteralStart) { // npos (not found) is larger too
        return false;
    }
    std::string core = removeBraces(term);
    std::string value =
        core.size() > kDefinitionLiteralLength ? core.substr(kDefinitionLiteralLength) : "";
    return removeBraces(value) == definitionUri;
}

// One client's record: when its filter selects the report, adds its message (the filter
// text, "=" and tail: the marker and the report) unless an equal one is there. True when it
// selected the report. Its lines are written under the caller's name (spot).
bool clientSelects(SourceSpot spot, const Json::Value& record, const std::string& definitionUri,
                   const std::string& tail, std::list<std::string>& messages) {
    if (!record.isObject() || !record.isMember("Event-type")) {
        return false;
    }
    if (!record["Event-type"].isString()) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]SSE subscription skipped: Event-type is not text");
        return false;
    }
    const std::string filter = record["Event-type"].asString();
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]Event-Type: %s", filter.c_str());
    const std::string message = reportMessage(filter, "", tail);
    bool selected = false;
    if (filter == kWholeMatchFilter) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]Filter match found:%s", filter.c_str());
        addUnique(messages, message);
        selected = true;
    }
    for (const std::string& term : split(filter, " or ")) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]Event: %s", term.c_str());
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]Metric definition: %s", definitionUri.c_str());
        if (termSelects(term, definitionUri)) {
            RF_LOG_AT(spot, kLogDebug, "[%s():%d]Filter match found:%s", term.c_str());
            addUnique(messages, message);
            return true;
        }
    }
    return selected;
}

} // namespace

int send_report_to_sse(const char* report) {
    send_report_to_sse(ParsedReport(report));
    return 0;
}

void send_report_to_sse(const ParsedReport& report) {
    RF_ENTER();
    if (report.text() == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Report is NULL");
        return;
    }
    std::list<std::string> messages;
    if (filterEventsSSE(report, messages, sequenceMarker(report.sequence())) !=
        SseFilterResult::Matched) {
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]filterEventsSSE is success with %d clients \n",
           static_cast<int>(messages.size()));
    int index = 0;
    for (const std::string& message : messages) {
        RF_LOG(kLogDebug, "[%s():%d]Send to SSE, processing client %d \n", index);
        RF_LOG(kLogDebug, "[%s():%d]SSE Filter size:%d\n", static_cast<int>(message.size()));
        sendReportMessage(message);
        ++index;
    }
}

int filterEventsSSE(const char* report, std::list<std::string>& messages, std::string idMarker) {
    return static_cast<int>(filterEventsSSE(ParsedReport(report), messages, idMarker));
}

SseFilterResult filterEventsSSE(const ParsedReport& report, std::list<std::string>& messages,
                                const std::string& idMarker) {
    RF_ENTER();
    if (report.text() == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Invalid event data\n");
        return SseFilterResult::Failed;
    }
    const std::string& definitionUri = report.definitionUri();
    if (definitionUri.empty()) {
        RF_LOG(kLogError, "[%s():%d]Could not find MetricReportDefinition in event\n");
        return SseFilterResult::Failed;
    }
    Json::Value root;
    if (!rfevent::loadJsonObject(RF_HERE, rfevent::fixedPath(rfevent::FixedPath::SseSubscriptions),
                                 kSseSubscriptionsFile, root)) {
        return SseFilterResult::Failed;
    }
    RF_LOG(kLogInfo, "[%s():%d]The MetricReportDefnition is %s", definitionUri.c_str());
    SseFilterResult result = SseFilterResult::NoneMatched;
    for (const Json::Value& record : root) {
        if (clientSelects(RF_HERE, record, definitionUri, idMarker + report.text(), messages)) {
            result = SseFilterResult::Matched;
        }
    }
    RF_EXIT();
    return result;
}

int sendLog_to_sse(const char* reportJson, const char* type) {
    const BuiltInReport* builtIn = builtInReportOfType(type, BuiltInOrder::SerialLogFirst);
    if (builtIn == nullptr) {
        RF_LOG(kLogError, "[%s():%d]invalid type");
        return -1;
    }
    sendLog_to_sse(reportJson, *builtIn);
    return 0;
}

void sendLog_to_sse(const char* reportJson, const BuiltInReport& type) {
    const int id = type.counter->fetch_add(1, std::memory_order_relaxed);
    std::string message =
        reportMessage(type.sseFilter, sequenceMarker(std::to_string(id)), reportJson);
    EncodeStr(message);
    sendReportMessage(message);
}

void EncodeStr(std::string& message) {
    RF_ENTER();
    const std::map<std::string, std::string> substitutions = {{";", "%3B"}};
    for (const auto& [from, to] : substitutions) {
        std::size_t position = message.find(from);
        while (position != std::string::npos) {
            message.replace(position, from.size(), to);
            position = message.find(from);
        }
    }
    RF_EXIT();
}

std::string removeBraces(std::string s) {
    RF_ENTER();
    RF_LOG(kLogDebug, "[%s():%d]Input removeBraces: %s\n", s.c_str());
    if (s.size() <= 1) {
        return s;
    }
    bool unclosedParenthesis = false;
    if (s.front() == '(') {
        if (s.back() == ')') {
            s = s.substr(1, s.size() - 2);
        } else {
            unclosedParenthesis = true;
        }
    }
    // A lone quote left after the parentheses is both ends of the pair: it gives "".
    if (!unclosedParenthesis && !s.empty() && s.front() == '\'' && s.back() == '\'') {
        s = s.size() == 1 ? std::string() : s.substr(1, s.size() - 2);
    }
    RF_LOG(kLogDebug, "[%s():%d]Output: %s\n", s.c_str());
    RF_EXIT();
    return s;
}

std::list<std::string> split(const std::string& s, const std::string& delimiter) {
    std::list<std::string> pieces;
    if (delimiter.empty()) {
        if (!s.empty()) {
            pieces.push_back(s);
        }
    } else {
        std::size_t position = 0;
        for (;;) {
            std::size_t match = s.find(delimiter, position);
            std::size_t end = match == std::string::npos ? s.size() : match;
            if (end > position) {
                pieces.push_back(s.substr(position, end - position));
            }
            if (match == std::string::npos) {
                break;
            }
            position = match + delimiter.size();
            if (s.size() <= position) {
                break;
            }
        }
    }
    RF_LOG(kLogDebug, "[%s():%d]Split data count: %d\n", static_cast<int>(pieces.size()));
    return pieces;
}

} // namespace rfevent
