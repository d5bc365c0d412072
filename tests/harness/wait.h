// How long tests wait for what must happen, and a wait for a condition that has no wait of its
// own (a log line, a file, a counter).
#ifndef RFEVENT_TESTS_WAIT_H
#define RFEVENT_TESTS_WAIT_H

#include <chrono>
#include <functional>

namespace rfevent::testkit {

// The longest a test waits for an event that must come: a request, a piece, a log line, a
// file. Generous, so that an emulated target on a busy machine still makes it; a passing test
// never waits this long, it goes on as soon as the event is there.
inline constexpr std::chrono::seconds kEventDeadline{30};

// Checks `condition` every 10 ms until it holds (true) or `timeout` has passed (false).
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = kEventDeadline);

} // namespace rfevent::testkit

#endif
