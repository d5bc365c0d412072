// Test-only access to the pause under pauseSeconds: a wait for a chosen deadline.
#ifndef RFEVENT_BASE_PAUSE_INTERNAL_H
#define RFEVENT_BASE_PAUSE_INTERNAL_H

#include <time.h>

namespace rfevent {

// Waits until deadline on the monotonic clock. A signal handled meanwhile (with or without
// SA_RESTART) does not end the wait early.
void pauseUntil(const timespec& deadline);

} // namespace rfevent

#endif
