// Load, unload and the worker-thread table.
#ifndef RFEVENT_FRAME_LIFECYCLE_H
#define RFEVENT_FRAME_LIFECYCLE_H

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace rfevent {

// Run flags of the three pipe threads: 1 = not running / stop requested, 0 = running.
// Set to 0 by the thread's start function, never set back by the plug-in.
extern std::atomic<int> g_telemetryNotifyFlag;
extern std::atomic<int> g_testReportFlag;
extern std::atomic<int> g_sseInfraFlag;

// Set once Redfish_telemetry_init has started the worker threads. From then on, state they use
// must outlive the plug-in's unload.
extern std::atomic<bool> g_workersStarted;

// One slot per thread-table entry: the created thread and pthread_create's result.
struct ThreadSlot {
    pthread_t thread;
    int result;
};

// Starts the thread of one table entry; returns 0 when started.
using ThreadStartFn = int (*)(ThreadSlot*);

constexpr std::size_t kThreadCount = 5;

// The table Redfish_telemetry_init walks, and the slots it fills.
extern const ThreadStartFn g_threadTable[kThreadCount];
extern ThreadSlot g_threadSlots[kThreadCount];

// Walks a thread table from its first entry to its last: empty entries are skipped, a start
// function that fails is logged with its slot index and the walk goes on.
void startThreadTable(const ThreadStartFn* table, ThreadSlot* slots, std::size_t count);

} // namespace rfevent

#endif
