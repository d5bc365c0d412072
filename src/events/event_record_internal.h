// Test-only access to the reading of the alert record: its field positions and the readers of
// one field.
#ifndef RFEVENT_EVENTS_EVENT_RECORD_INTERNAL_H
#define RFEVENT_EVENTS_EVENT_RECORD_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "rfevent/redfish_event.h"

namespace rfevent {

// Little-endian integers at a byte position; the record may sit at any alignment.
uint16_t recordU16(const DataEventHeader* header, size_t position);
uint32_t recordU32(const DataEventHeader* header, size_t position);
int32_t recordI32(const DataEventHeader* header, size_t position);
// The text whose offset is stored at position, or nullptr when the offset is 0.
const char* recordText(const DataEventHeader* header, size_t position);

// Byte positions of the fields the plug-in reads.
constexpr size_t kRecordEventId = 16;
constexpr size_t kRecordSeverity = 22;
constexpr size_t kRecordMessageId = 28;
constexpr size_t kRecordMessage = 32;
constexpr size_t kRecordFqdd = 36;
constexpr size_t kRecordMessageArgs = 52;
constexpr size_t kRecordMemberId = 68;

} // namespace rfevent

#endif
