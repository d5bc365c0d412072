// Run flags of the worker threads. The frame owns the flags and hands each pipe thread its own
// through the thread argument; no subsystem reaches up to the frame for them.
#ifndef RFEVENT_BASE_RUN_FLAGS_H
#define RFEVENT_BASE_RUN_FLAGS_H

#include <atomic>

namespace rfevent {

// 0 = running, any other value = not running / stop requested. Never set back by the plug-in.
using RunFlag = std::atomic<int>;

// True while the flag handed to a thread reads 0. A thread started without a flag never runs.
inline bool keepRunning(const RunFlag* flag) {
    return flag != nullptr && flag->load(std::memory_order_relaxed) == 0;
}

// Set once Redfish_telemetry_init has started the worker threads. From then on, state they use
// must outlive the plug-in's unload.
extern std::atomic<bool> g_workersStarted;

} // namespace rfevent

#endif
