#include "base/run_flags.h"

namespace rfevent {

std::atomic<bool> g_workersStarted{false};

} // namespace rfevent
