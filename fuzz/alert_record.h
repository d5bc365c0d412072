// Well-formed alert records (every offset points into the record, every text is
// NUL-terminated) with arbitrary field contents, through the exported alert entry: the
// subscriber path (one subscription, refused at once on loopback) and the SSE path.
// Input: 4 bytes event id, 2 severity, 4 member id, 1 byte of presence flags, then
// message id NUL message NUL FQDD NUL arguments (NUL-separated).
#ifndef RFEVENT_FUZZ_ALERT_RECORD_H
#define RFEVENT_FUZZ_ALERT_RECORD_H

#include <cstring>
#include <string>
#include <vector>

#include <json/json.h>

#include "base/paths.h"
#include "fuzz_support.h"
#include "rfevent/redfish_event.h"

namespace rfevent::fuzz {

inline void prepareAlertFiles() {
    static std::string preparedFor;
    if (writeDeliverySettingsOnce(preparedFor, 1).empty()) {
        return;
    }

    Json::Value subscription(Json::objectValue);
    subscription["Destination"] = "https://127.0.0.1:1/events";
    subscription["EventFormatType"] = "Event";
    subscription["EventTypes"].append("Alert");
    subscription["Context"] = "fuzz";
    Json::Value store(Json::objectValue);
    store["1"] = subscription;
    writeWhole(fixedPath(FixedPath::SubscriptionStore), store.toStyledString());

    Json::Value sseClient(Json::objectValue);
    sseClient["EventTypes"].append("Alert");
    Json::Value sse(Json::objectValue);
    sse["1"] = sseClient;
    writeWhole(fixedPath(FixedPath::SseSubscriptions), sse.toStyledString());
}

inline int alertRecord(const uint8_t* data, std::size_t size) {
    ensureRoot();
    prepareAlertFiles();
    const std::size_t fixedBytes = 11;
    if (size < fixedBytes) {
        return 0;
    }
    const std::vector<std::string> text = pieces(data + fixedBytes, size - fixedBytes, 4);
    const uint8_t present = data[10];

    std::vector<uint8_t> record(sizeof(DataEventHeader), 0);
    auto put = [&record](std::size_t position, const void* bytes, std::size_t count) {
        std::memcpy(record.data() + position, bytes, count);
    };
    put(16, data, 4);     // event id
    put(22, data + 4, 2); // severity
    put(68, data + 6, 4); // member id
    auto appendText = [&record, &put](std::size_t offsetPosition, const std::string& value) {
        const auto offset = static_cast<uint32_t>(record.size());
        record.insert(record.end(), value.begin(), value.end());
        record.push_back(0);
        put(offsetPosition, &offset, sizeof offset);
    };
    if (present & 1) {
        appendText(28, cText(text[0]));
    }
    if (present & 2) {
        appendText(32, cText(text[1]));
    }
    if (present & 4) {
        appendText(36, cText(text[2]));
    }
    if (present & 8) {
        // Packed arguments: the piece's NULs separate them, an empty string ends the list.
        std::string arguments = text[3];
        while (!arguments.empty() && arguments.back() == '\0') {
            arguments.pop_back();
        }
        std::string packed;
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            if (arguments[i] == '\0' && (i + 1 == arguments.size() || arguments[i + 1] == '\0')) {
                continue; // an empty argument would end the list early
            }
            packed.push_back(arguments[i]);
        }
        appendText(52, packed);
        record.push_back(0);
    }
    int context = 0;
    sendRedFishEventAlert(reinterpret_cast<DataEventHeader*>(record.data()), &context);

    char uri[256];
    MapFQDDToRedfishURI(cText(text[2]).c_str(), uri, sizeof uri);
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_ALERT_RECORD_H
