#include "delivery/jxlog.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

class JxLogTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }
};

TEST_F(JxLogTest, SubmitsTheMessageWithItsArgumentAndFixedCodes) {
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "https://dest.example/events"), 0);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageId"], Json::Value("JX083"));
    EXPECT_EQ(entries[0]["MessageArgs"][0], Json::Value("https://dest.example/events"));
    EXPECT_EQ(entries[0]["MessageArgs"].size(), 1u);
    EXPECT_EQ(entries[0]["Category"], Json::Value(65));
    EXPECT_EQ(entries[0]["SeverityCode"], Json::Value(4));
    EXPECT_EQ(entries[0]["EventType"], Json::Value(2));
    EXPECT_EQ(log.count(4, "arg = https://dest.example/events"), 1);
    EXPECT_EQ(log.count(4, "JXLOGWRAPBuildMsgArgsBuffer Success"), 1);
    EXPECT_EQ(log.count(4, "JXLOGWRAPCreateTLVList Success"), 1);
    EXPECT_EQ(log.count(4, "JXLOGWRAPAddTLVToList Success"), 1);
    EXPECT_EQ(log.count(4, "JXLOGWRAPSubmitEvent() Success"), 1);
}

TEST_F(JxLogTest, NullMessageIdReturns12902AndSubmitsNothing) {
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog(nullptr, 1, "x"), 12902);
    EXPECT_TRUE(tk::eventLogEntries().empty());
    EXPECT_EQ(log.count(2, "JX Msgid is NULL."), 1);
}

TEST_F(JxLogTest, NullFirstArgumentSubmitsWithoutArguments) {
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, static_cast<const char*>(nullptr)), 0);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageArgs"].size(), 0u);
    EXPECT_EQ(log.count(4, "Breaking for argcount = 0"), 1);
}

TEST_F(JxLogTest, NonPositiveCountCollectsNothing) {
    EXPECT_EQ(SubmitJXLog("JX083", 0, "ignored"), 0);
    EXPECT_EQ(SubmitJXLog("JX083", -3, "ignored"), 0);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0]["MessageArgs"].size(), 0u);
    EXPECT_EQ(entries[1]["MessageArgs"].size(), 0u);
}

TEST_F(JxLogTest, SeveralArgumentsKeepTheirOrder) {
    EXPECT_EQ(SubmitJXLog("JX001", 3, "a", "b", "c"), 0);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    Json::Value args(Json::arrayValue);
    args.append("a");
    args.append("b");
    args.append("c");
    EXPECT_EQ(entries[0]["MessageArgs"], args);
}

TEST_F(JxLogTest, PlatformFailureIsReturned) {
    // Without its data folder the stand-alone event log cannot append the entry.
    std::filesystem::remove_all(tk::rooted("/var/lib/rfevent"));
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 5);
    EXPECT_EQ(log.count(2, "JXLOGWRAPSubmitEvent() failed with status [5]"), 1);
}

} // namespace
