#include "sse/message.h"

namespace rfevent {

namespace {

constexpr std::string_view kMarkerOpen = "<id:";
constexpr std::string_view kMarkerClose = ">:";
constexpr std::string_view kEnd = "<END>";
constexpr std::string_view kAlertKey = "EventFormatType eq Event";

} // namespace

std::string sequenceMarker(std::string_view id) {
    std::string marker;
    marker.reserve(kMarkerOpen.size() + id.size() + kMarkerClose.size());
    marker.append(kMarkerOpen).append(id).append(kMarkerClose);
    return marker;
}

std::string reportMessage(std::string_view key, std::string_view marker, std::string_view body) {
    std::string message;
    message.reserve(key.size() + 1 + marker.size() + body.size());
    message.append(key).append(1, '=').append(marker).append(body);
    return message;
}

std::string messagePrefix(std::string_view message) {
    const std::size_t at = message.find(kMarkerOpen);
    return std::string(at == std::string_view::npos ? message : message.substr(0, at));
}

std::string endMarker(std::string_view prefix) {
    std::string marker(prefix);
    marker.append(kEnd);
    return marker;
}

std::string alertFrame(std::string_view id, std::string_view document) {
    std::string frame = reportMessage(kAlertKey, sequenceMarker(id), document);
    frame.append(kEnd);
    return frame;
}

} // namespace rfevent
