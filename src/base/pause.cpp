#include "base/pause.h"
#include "base/pause_internal.h"

#include <errno.h>

namespace rfevent {

namespace {

constexpr long kNanosecondsPerSecond = 1000000000L;
constexpr long kNanosecondsPerMillisecond = 1000000L;

} // namespace

timespec deadlineAfterMilliseconds(long milliseconds) {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * kNanosecondsPerMillisecond;
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosecondsPerSecond;
    }
    return deadline;
}

int millisecondsUntil(const timespec& deadline) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long left =
        static_cast<long long>(deadline.tv_sec - now.tv_sec) * kNanosecondsPerSecond +
        (deadline.tv_nsec - now.tv_nsec);
    if (left <= 0) {
        return 0;
    }
    return static_cast<int>((left + kNanosecondsPerMillisecond - 1) / kNanosecondsPerMillisecond);
}

void pauseUntil(const timespec& deadline) {
    // An absolute deadline: a wait resumed after a signal keeps the time already waited.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

void pauseSeconds(unsigned seconds) {
    pauseUntil(deadlineAfterMilliseconds(static_cast<long>(seconds) * 1000L));
}

} // namespace rfevent
