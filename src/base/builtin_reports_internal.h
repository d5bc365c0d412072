// Inside the built-in report table, for tests.
#ifndef RFEVENT_BASE_BUILTIN_REPORTS_INTERNAL_H
#define RFEVENT_BASE_BUILTIN_REPORTS_INTERNAL_H

#include <atomic>

namespace rfevent {

// Sequence of the next report of each type, as last loaded from its sequence file; the SSE
// sender uses the value as event id and then increments it. The table's counters point here.
extern std::atomic<int> serialLogSequence;
extern std::atomic<int> cpuRegisterSequence;

} // namespace rfevent

#endif
