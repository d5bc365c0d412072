#include "base/pause.h"
#include "base/pause_internal.h"

#include <gtest/gtest.h>

#include <chrono>

#include "harness/signal_storm.h"
#include "harness/wait.h"

using namespace rfevent;
using testkit::SignalStorm;

namespace {

using Clock = std::chrono::steady_clock;

TEST(PauseTest, APauseKeepsItsFullLengthUnderASignalStorm) {
    SignalStorm storm;
    ASSERT_TRUE(testkit::waitUntil([&] { return storm.handled() > 10; }));
    const long before = storm.handled();
    const auto start = Clock::now();
    pauseSeconds(1);
    const auto took = Clock::now() - start;
    EXPECT_GE(took, std::chrono::seconds(1));
    EXPECT_GT(storm.handled(), before); // the pause was interrupted, and went on
}

TEST(PauseTest, MillisecondsUntilCountsDownToZero) {
    const timespec deadline = deadlineAfterMilliseconds(500);
    const int left = millisecondsUntil(deadline);
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 500);
    pauseUntil(deadline);
    EXPECT_EQ(millisecondsUntil(deadline), 0);
}

TEST(PauseTest, APauseOfZeroReturnsAtOnce) {
    const auto start = Clock::now();
    pauseSeconds(0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
}

} // namespace
