// Test-only access to the frame: the run flags, the worker-thread table and its walk.
#ifndef RFEVENT_FRAME_LIFECYCLE_INTERNAL_H
#define RFEVENT_FRAME_LIFECYCLE_INTERNAL_H

#include <pthread.h>

#include <cstddef>

#include "base/run_flags.h"

namespace rfevent {

// Run flags of the three pipe threads: 1 = not running / stop requested, 0 = running.
// Set to 0 by the thread's start function, never set back by the plug-in.
// Each thread receives its flag as the thread argument.
extern RunFlag g_telemetryNotifyFlag;
extern RunFlag g_testReportFlag;
extern RunFlag g_sseInfraFlag;

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
