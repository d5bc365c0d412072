// The telemetry service's pipe byte stream: the input is cut into consecutive reads (the first
// byte b of each piece sets its length: b + 1 bytes, 255 for a whole read buffer), parsed with the
// reader's state kept across reads as the thread keeps it. The announcement's actions are counted
// instead of looking reports up, so that only the parsing runs.
#ifndef RFEVENT_FUZZ_TELEMETRY_PIPE_H
#define RFEVENT_FUZZ_TELEMETRY_PIPE_H

#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz_support.h"
#include "telemetry/notify_thread_internal.h"

namespace rfevent::fuzz {

namespace pipe_actions {
inline char* lookup(const char* name) {
    // Reads the whole name, so that an unterminated one shows up as an overflow.
    (void)std::strlen(name);
    return nullptr;
}
inline void builtInReport(const BuiltInReport&) {}
} // namespace pipe_actions

inline int telemetryPipe(const uint8_t* data, std::size_t size) {
    ensureRoot();
    auto state = std::make_unique<TelemetryPipeState>();
    state->lookup = pipe_actions::lookup;
    state->builtInReport = pipe_actions::builtInReport;
    std::size_t at = 0;
    while (at < size) {
        const std::size_t wanted =
            data[at] == 0xff ? kTelemetryReadSize : 1 + static_cast<std::size_t>(data[at]);
        ++at;
        const std::size_t n = std::min({wanted, size - at, kTelemetryReadSize});
        if (n == 0) {
            break;
        }
        std::memcpy(state->readBuffer, data + at, n);
        parseTelemetryRead(*state, static_cast<int>(n));
        std::memset(state->readBuffer, 0, sizeof state->readBuffer);
        at += n;
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_TELEMETRY_PIPE_H
