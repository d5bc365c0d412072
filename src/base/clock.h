// The wall clock that every timestamp of the plug-in is read from: alert documents, the
// telemetry database's "GetISODateTime" and the serial-log and CPU-register reports.
#ifndef RFEVENT_BASE_CLOCK_H
#define RFEVENT_BASE_CLOCK_H

#include <sys/time.h>

#include <ctime>

namespace rfevent {

// The current time with microseconds (gettimeofday); false when it cannot be read.
bool readWallClock(struct timeval* now);

// Seconds since the epoch, or (time_t)-1 when the clock cannot be read, as time() gives them.
std::time_t wallClockSeconds();

} // namespace rfevent

#endif
