#include "base/guard.h"

namespace rfevent {

void logDroppedWork(SourceSpot spot, const char* unit, const char* reason) noexcept {
    RF_LOG_AT(spot, kLogError, "[%s():%d]%s: %s", unit, reason);
}

} // namespace rfevent
