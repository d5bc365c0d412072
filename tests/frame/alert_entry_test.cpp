// The alert entry point and the eventing switch.
#include <gtest/gtest.h>

#include "frame/alert_entry_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "rfevent/redfish_event.h"

using namespace rfevent;

using namespace rfevent::testkit;

namespace {

const char kEnable[] = "Tavik.Embedded.1#RedfishEventing.1#EventEnable";

class AlertEntryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        writeAttributes(Json::Value(Json::objectValue));
    }
    DataEventHeader header_{};
    int context_ = 0;
};

TEST_F(AlertEntryTest, OnlyTheTextOneEnablesEventing) {
    setAttribute(kEnable, "1");
    EXPECT_TRUE(isRedfishEventingEnabled());
    setAttribute(kEnable, 1);
    EXPECT_TRUE(isRedfishEventingEnabled());
    for (const char* value : {"0", "", "Enabled", "10", "2"}) {
        setAttribute(kEnable, value);
        EXPECT_FALSE(isRedfishEventingEnabled()) << '"' << value << '"';
    }
}

TEST_F(AlertEntryTest, ReadFailureIsLoggedAndDisables) {
    LogCapture log;
    EXPECT_FALSE(isRedfishEventingEnabled());
    EXPECT_TRUE(
        log.contains(2, "]Attribute get failed for " + std::string(kEnable) + " with error: "))
        << log.dump();
}

TEST_F(AlertEntryTest, LongValueIsNotCutToOne) {
    // "10" does not fit the two-byte buffer: it must read as disabled, never as "1".
    setAttribute(kEnable, "10");
    LogCapture log;
    EXPECT_FALSE(isRedfishEventingEnabled());
    EXPECT_TRUE(log.contains(2, "]Attribute get failed for"));
}

TEST_F(AlertEntryTest, NullPointersAreLoggedAtDebugLevel) {
    setAttribute(kEnable, "1");
    LogCapture log;
    sendRedFishEventAlert(nullptr, &context_);
    sendRedFishEventAlert(&header_, nullptr);
    EXPECT_EQ(log.count(4, "]DataEventHeader is NULL"), 2) << log.dump();
    EXPECT_EQ(log.count(2, "]DataEventHeader is NULL"), 0);
    EXPECT_EQ(log.countAny("Attribute get failed"), 0);
}

TEST_F(AlertEntryTest, DisabledEventingSendsNothing) {
    setAttribute(kEnable, "0");
    LogCapture log;
    sendRedFishEventAlert(&header_, &context_);
    EXPECT_EQ(log.countAny("Entering sendRedFishEvent Function"), 0);
    EXPECT_EQ(log.countAny("Entering sendRedFishEvent_SSE Function"), 0);
    EXPECT_EQ(log.count(4, "Exiting sendRedFishEventAlert Function"), 1);
}

TEST_F(AlertEntryTest, EnabledEventingRunsBothPathsInOrder) {
    setAttribute(kEnable, "1");
    LogCapture log;
    sendRedFishEventAlert(&header_, &context_);
    auto lines = log.lines();
    int push = -1, sse = -1;
    for (int i = 0; i < static_cast<int>(lines.size()); ++i) {
        if (push < 0 && lines[i].find("Entering sendRedFishEvent Function") != std::string::npos) {
            push = i;
        }
        if (sse < 0 &&
            lines[i].find("Entering sendRedFishEvent_SSE Function") != std::string::npos) {
            sse = i;
        }
    }
    ASSERT_GE(push, 0) << log.dump();
    ASSERT_GE(sse, 0) << log.dump();
    EXPECT_LT(push, sse);
}

} // namespace
