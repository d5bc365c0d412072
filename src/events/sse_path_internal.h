// Inside the SSE event path, for its tests.
#ifndef RFEVENT_EVENTS_SSE_PATH_INTERNAL_H
#define RFEVENT_EVENTS_SSE_PATH_INTERNAL_H

#include <cstdint>

namespace rfevent {

// Number of the last alert handed to the SSE path (0 before the first one).
uint32_t sseEventCount();

} // namespace rfevent

#endif
