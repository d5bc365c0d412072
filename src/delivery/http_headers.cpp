#include "delivery/http_headers.h"

#include "base/log.h"

namespace rfevent {

namespace {

bool holdsLineBreak(const std::string& text) {
    return text.find_first_of("\r\n") != std::string::npos;
}

} // namespace

std::vector<std::string> subscriptionHeaderLines(const Json::Value& subscription) {
    std::vector<std::string> lines;
    const Json::Value& headers = subscription["HttpHeaders"];
    if (headers.size() == 0) { // NOLINT(readability-container-size-empty): counts elements
        RF_LOG(kLogDebug, "[%s():%d]HttpHeader size is Zero");
    }
    for (Json::ArrayIndex i = 0; i < headers.size(); ++i) {
        const Json::Value& element = headers[i];
        for (const std::string& name : element.getMemberNames()) {
            const std::string value = element[name].asString();
            if (holdsLineBreak(name) || holdsLineBreak(value)) {
                RF_LOG(kLogError,
                       "[%s():%d]Header dropped from HttpHeaders[%u]: CR or LF in name or value",
                       static_cast<unsigned>(i));
                continue;
            }
            std::string line = name;
            line += ':';
            line += value;
            RF_LOG(kLogDebug, "[%s():%d]Headervalue:%s", line.c_str());
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

} // namespace rfevent
