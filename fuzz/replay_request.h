// Replay requests of reconnecting SSE clients, as read from the SSE infrastructure pipe:
// "<last event id>|<filter text>".
#ifndef RFEVENT_FUZZ_REPLAY_REQUEST_H
#define RFEVENT_FUZZ_REPLAY_REQUEST_H

#include <exception>
#include <string>

#include "fuzz_support.h"
#include "telemetry/replay_internal.h"

namespace rfevent::fuzz {

inline int replayRequest(const uint8_t* data, std::size_t size) {
    ensureRoot();
    const std::string request = cText(std::string(reinterpret_cast<const char*>(data), size));
    try {
        process_last_event_id(request.c_str());
    } catch (const std::exception&) {
        // The infrastructure thread drops a request whose handling throws.
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_REPLAY_REQUEST_H
