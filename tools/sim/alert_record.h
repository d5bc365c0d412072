// Builds the platform's alert record: a DataEventHeader followed by the strings its offsets
// point to, all in one contiguous buffer.
#ifndef RFEVENT_SIM_ALERT_RECORD_H
#define RFEVENT_SIM_ALERT_RECORD_H

#include <cstdint>
#include <string>
#include <vector>

#include "rfevent/redfish_event.h"

namespace rfevent::sim {

struct AlertSpec {
    int severity = 3; // 1 critical, 2 warning, 3 informational
    int32_t eventId = 1000;
    std::string messageId; // empty: field absent
    std::string message;   // empty: field absent
    std::vector<std::string> args;
    bool hasArgs = false; // an argument list (possibly empty) is present
    std::string fqdd;     // empty: field absent
    int32_t memberId = 0; // 0: absent
};

class AlertRecord {
  public:
    explicit AlertRecord(const AlertSpec& spec);
    DataEventHeader* header() { return reinterpret_cast<DataEventHeader*>(storage_.data()); }
    std::size_t size() const { return storage_.size() * sizeof(uint64_t); }

  private:
    uint32_t append(const std::string& text);

    std::vector<uint64_t> storage_; // 8-byte aligned backing store
    std::vector<char> bytes_;
};

// "critical", "warning", "informational"/"info"/"ok" or 1-3; 0 when not recognised.
int parseSeverity(const std::string& text);
const char* severityName(int severity);

} // namespace rfevent::sim

#endif
