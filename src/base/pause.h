// The one way the plug-in waits: pauses that a signal of the host cannot cut short.
#ifndef RFEVENT_BASE_PAUSE_H
#define RFEVENT_BASE_PAUSE_H

#include <time.h>

namespace rfevent {

// A point on the monotonic clock this many milliseconds from now.
timespec deadlineAfterMilliseconds(long milliseconds);

// Milliseconds left until deadline: 0 once it has passed, rounded up otherwise, so a wait for
// the rest never returns early.
int millisecondsUntil(const timespec& deadline);

// Waits the full number of seconds, whatever signals arrive meanwhile.
void pauseSeconds(unsigned seconds);

} // namespace rfevent

#endif
