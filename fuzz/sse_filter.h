// SSE clients' filter texts (from the SSE subscription file) against metric reports:
// removeBraces and split directly, then the whole match in filterEventsSSE.
// Input: filter text NUL report text NUL split delimiter NUL id marker.
#ifndef RFEVENT_FUZZ_SSE_FILTER_H
#define RFEVENT_FUZZ_SSE_FILTER_H

#include <exception>
#include <list>
#include <string>

#include <json/json.h>

#include "base/paths.h"
#include "fuzz_support.h"
#include "sse/filter.h"
#include "sse/filter_internal.h"

namespace rfevent::fuzz {

inline int sseFilter(const uint8_t* data, std::size_t size) {
    ensureRoot();
    const std::vector<std::string> in = pieces(data, size, 4);
    const std::string& filter = in[0];
    const std::string& report = in[1];
    const std::string& delimiter = in[2];

    (void)removeBraces(filter);
    (void)split(filter, " or ");
    (void)split(filter, " eq ");
    (void)split(filter, "|");
    if (!delimiter.empty()) {
        (void)split(filter, delimiter);
    }

    Json::Value client(Json::objectValue);
    client["Event-type"] = filter;
    Json::Value file(Json::objectValue);
    file["fuzz-client"] = client;
    file["second-client"]["Event-type"] = delimiter;
    writeWhole(fixedPath(FixedPath::SseSubscriptions), file.toStyledString());

    std::list<std::string> messages;
    try {
        (void)filterEventsSSE(report.c_str(), messages, in[3]);
    } catch (const std::exception&) {
        // Type errors of jsoncpp end the call by design; the caller drops the report.
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_SSE_FILTER_H
