#include "sse/filter.h"

#include <algorithm>

#include <json/json.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
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

} // namespace

int send_report_to_sse(const char* report) {
    RF_ENTER();
    if (report == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Report is NULL");
        return 0;
    }
    std::string idMarker = "<id:" + getReportSequence(report) + ">:";
    std::list<std::string> messages;
    if (filterEventsSSE(report, messages, idMarker) != 0) {
        return 0;
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
    return 0;
}

int filterEventsSSE(const char* report, std::list<std::string>& messages, std::string idMarker) {
    RF_ENTER();
    if (report == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Invalid event data\n");
        return 1;
    }
    std::string definitionUri = getMetricReportDefinition(report);
    if (definitionUri.empty()) {
        RF_LOG(kLogError, "[%s():%d]Could not find MetricReportDefinition in event\n");
        return 1;
    }
    Json::Value root;
    if (!rfevent::loadJsonObject(RF_HERE, rfevent::fixedPath(rfevent::FixedPath::SseSubscriptions),
                                 kSseSubscriptionsFile, root)) {
        return 1;
    }
    RF_LOG(kLogInfo, "[%s():%d]The MetricReportDefnition is %s", definitionUri.c_str());

    int result = 2;
    for (const Json::Value& record : root) {
        if (!record.isObject() || !record.isMember("Event-type")) {
            continue;
        }
        if (!record["Event-type"].isString()) {
            RF_LOG(kLogError, "[%s():%d]SSE subscription skipped: Event-type is not text");
            continue;
        }
        const std::string filter = record["Event-type"].asString();
        RF_LOG(kLogDebug, "[%s():%d]Event-Type: %s", filter.c_str());
        std::string message = filter;
        message += '=';
        message += idMarker;
        message += report;
        if (filter == kWholeMatchFilter) {
            RF_LOG(kLogDebug, "[%s():%d]Filter match found:%s", filter.c_str());
            addUnique(messages, message);
            result = 0;
        }
        for (const std::string& term : split(filter, " or ")) {
            RF_LOG(kLogDebug, "[%s():%d]Event: %s", term.c_str());
            RF_LOG(kLogDebug, "[%s():%d]Metric definition: %s", definitionUri.c_str());
            if (termSelects(term, definitionUri)) {
                RF_LOG(kLogDebug, "[%s():%d]Filter match found:%s", term.c_str());
                addUnique(messages, message);
                result = 0;
                break;
            }
        }
    }
    RF_EXIT();
    return result;
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
