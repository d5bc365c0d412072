#include "alert_record.h"

#include <strings.h>

#include <cstring>

namespace rfevent::sim {

AlertRecord::AlertRecord(const AlertSpec& spec) : bytes_(sizeof(DataEventHeader), '\0') {
    DataEventHeader head{};
    head.eventId = spec.eventId;
    head.severity = static_cast<uint16_t>(spec.severity);
    head.memberId = spec.memberId;
    head.messageIdOffset = spec.messageId.empty() ? 0 : append(spec.messageId);
    head.messageOffset = spec.message.empty() ? 0 : append(spec.message);
    head.fqddOffset = spec.fqdd.empty() ? 0 : append(spec.fqdd);
    if (spec.hasArgs || !spec.args.empty()) {
        head.messageArgsOffset = static_cast<uint32_t>(bytes_.size());
        for (const std::string& arg : spec.args) {
            bytes_.insert(bytes_.end(), arg.begin(), arg.end());
            bytes_.push_back('\0');
        }
        bytes_.push_back('\0'); // the empty string that ends the list
    }
    std::memcpy(bytes_.data(), &head, sizeof head);
    storage_.assign((bytes_.size() + sizeof(uint64_t) - 1) / sizeof(uint64_t), 0);
    std::memcpy(storage_.data(), bytes_.data(), bytes_.size());
}

uint32_t AlertRecord::append(const std::string& text) {
    auto offset = static_cast<uint32_t>(bytes_.size());
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    bytes_.push_back('\0');
    return offset;
}

int parseSeverity(const std::string& text) {
    if (text == "1" || strcasecmp(text.c_str(), "critical") == 0) {
        return 1;
    }
    if (text == "2" || strcasecmp(text.c_str(), "warning") == 0) {
        return 2;
    }
    if (text == "3" || strcasecmp(text.c_str(), "informational") == 0 ||
        strcasecmp(text.c_str(), "info") == 0 || strcasecmp(text.c_str(), "ok") == 0) {
        return 3;
    }
    return 0;
}

const char* severityName(int severity) {
    switch (severity) {
    case 1:
        return "Critical";
    case 2:
        return "Warning";
    case 3:
        return "Informational";
    default:
        return "Unknown";
    }
}

} // namespace rfevent::sim
