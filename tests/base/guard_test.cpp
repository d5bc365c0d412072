#include "base/guard.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "harness/log_capture.h"

using namespace rfevent;
using rfevent::testkit::LogCapture;

// An allocation that fails inside a unit of work ends that unit with a level-2 line naming it;
// the caller goes on.
TEST(Guard, AllocationFailureIsADroppedUnitWithALevel2Line) {
    LogCapture log;
    bool after = false;
    const bool finished = guarded(RF_HERE, "Unit dropped", [&] {
        throw std::bad_alloc();
        after = true;
    });
    EXPECT_FALSE(finished);
    EXPECT_FALSE(after);
    EXPECT_EQ(log.count(2, "Unit dropped: std::bad_alloc"), 1) << log.dump();
    EXPECT_EQ(log.count(2, "TestBody():"), 1) << log.dump();
}

TEST(Guard, AnyOtherExceptionIsLoggedTheSameWay) {
    LogCapture log;
    EXPECT_FALSE(guarded(RF_HERE, "Unit dropped", [] { throw std::runtime_error("broken"); }));
    EXPECT_FALSE(guarded(RF_HERE, "Unit dropped", [] { throw 7; }));
    EXPECT_EQ(log.count(2, "Unit dropped: broken"), 1) << log.dump();
    EXPECT_EQ(log.count(2, "Unit dropped: unknown exception"), 1) << log.dump();
}

TEST(Guard, AFinishedUnitLogsNothing) {
    LogCapture log;
    int runs = 0;
    EXPECT_TRUE(guarded(RF_HERE, "Unit dropped", [&] { ++runs; }));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(log.countAny("Unit dropped"), 0) << log.dump();
}
