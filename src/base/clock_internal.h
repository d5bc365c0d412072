// Test-only access to the wall clock: a test replaces the reading function to put the plug-in
// at a chosen time (after 2038, a fixed second, or a clock that fails).
#ifndef RFEVENT_BASE_CLOCK_INTERNAL_H
#define RFEVENT_BASE_CLOCK_INTERNAL_H

#include <sys/time.h>

#include <atomic>

namespace rfevent {

// Fills *now and returns 0, or returns non-zero when the time cannot be read.
using WallClock = int (*)(struct timeval* now);

// gettimeofday unless a test replaced it.
extern std::atomic<WallClock> g_wallClock;

} // namespace rfevent

#endif
