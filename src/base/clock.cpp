#include "base/clock.h"

#include "base/clock_internal.h"

namespace rfevent {

namespace {
int systemClock(struct timeval* now) {
    return ::gettimeofday(now, nullptr);
}
} // namespace

std::atomic<WallClock> g_wallClock{systemClock};

bool readWallClock(struct timeval* now) {
    return g_wallClock.load(std::memory_order_relaxed)(now) == 0;
}

std::time_t wallClockSeconds() {
    struct timeval now = {};
    if (!readWallClock(&now)) {
        return static_cast<std::time_t>(-1);
    }
    return now.tv_sec;
}

} // namespace rfevent
