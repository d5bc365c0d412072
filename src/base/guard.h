// The one guard at every thread and entry boundary: an exception thrown by a unit of work (one
// alert path, one report, one request, one pass) becomes a level-2 log line, the unit is
// dropped, and the caller goes on. Nothing thrown ever reaches the host.
#ifndef RFEVENT_BASE_GUARD_H
#define RFEVENT_BASE_GUARD_H

#include <exception>

#include "base/log.h"

namespace rfevent {

// Logs "[function():line]<unit>: <reason>" at level 2.
void logDroppedWork(SourceSpot spot, const char* unit, const char* reason) noexcept;

// Runs work; true when it finished, false when it threw (and was logged under spot).
template <typename Work> bool guarded(SourceSpot spot, const char* unit, Work&& work) noexcept {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        logDroppedWork(spot, unit, error.what());
    } catch (...) {
        logDroppedWork(spot, unit, "unknown exception");
    }
    return false;
}

} // namespace rfevent

#endif
