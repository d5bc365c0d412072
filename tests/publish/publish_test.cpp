// The publish point: every kind of document walks the one channel table, in its order.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/builtin_reports.h"
#include "base/report.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "publish/channels_internal.h"
#include "publish/publish.h"

namespace {

using rfevent::BuiltInReport;
using rfevent::Channel;
using rfevent::ParsedReport;

std::vector<std::string> g_events;
bool g_firstFails = false;

void firstAlert(DataEventHeader*, void*) {
    if (g_firstFails) {
        throw std::runtime_error("first channel broke");
    }
    g_events.push_back("first:alert");
}
void secondAlert(DataEventHeader*, void*) {
    g_events.push_back("second:alert");
}
void firstReport(const ParsedReport& report) {
    if (g_firstFails) {
        throw std::runtime_error("first channel broke");
    }
    g_events.push_back(std::string("first:") + report.text());
}
void secondReport(const ParsedReport& report) {
    g_events.push_back(std::string("second:") + report.text());
}
void firstBuiltIn(const ParsedReport&, const BuiltInReport& type) {
    g_events.push_back(std::string("first:") + type.type);
}
void secondBuiltIn(const ParsedReport&, const BuiltInReport& type) {
    g_events.push_back(std::string("second:") + type.type);
}

class PublishTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        g_events.clear();
        g_firstFails = false;
        // The second channel serves built-in reports first, as the SSE channel does.
        rfevent::g_channels = {
            {"first channel dropped the alert", firstAlert, firstReport, firstBuiltIn, false},
            {"second channel dropped the alert", secondAlert, secondReport, secondBuiltIn, true},
        };
    }
    void TearDown() override { rfevent::g_channels = rfevent::defaultChannels(); }
};

TEST_F(PublishTest, AlertReachesEveryChannelInTableOrder) {
    DataEventHeader* header = nullptr;
    rfevent::publishAlert(RF_HERE, header, nullptr);
    EXPECT_EQ((std::vector<std::string>{"first:alert", "second:alert"}), g_events);
}

TEST_F(PublishTest, FailedAlertChannelIsLoggedAndTheNextStillRuns) {
    g_firstFails = true;
    rfevent::testkit::LogCapture log;
    DataEventHeader* header = nullptr;
    rfevent::publishAlert(RF_HERE, header, nullptr);
    EXPECT_EQ((std::vector<std::string>{"second:alert"}), g_events);
    EXPECT_TRUE(log.contains(2, "first channel dropped the alert: first channel broke"));
}

TEST_F(PublishTest, ReportReachesEveryChannelInTableOrder) {
    rfevent::publishReport(ParsedReport("{}"));
    EXPECT_EQ((std::vector<std::string>{"first:{}", "second:{}"}), g_events);
}

TEST_F(PublishTest, FailedReportChannelEndsTheReportAtItsSource) {
    g_firstFails = true;
    EXPECT_THROW(rfevent::publishReport(ParsedReport("{}")), std::runtime_error);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(PublishTest, BuiltInReportReachesTheChannelsThatServeItFirstBeforeTheOthers) {
    rfevent::publishBuiltInReport(ParsedReport("{}"), rfevent::kSerialLogReport);
    rfevent::publishBuiltInReport(ParsedReport("{}"), rfevent::kCpuRegistersReport);
    EXPECT_EQ((std::vector<std::string>{"second:SerialLog", "first:SerialLog",
                                        "second:CPURegisters", "first:CPURegisters"}),
              g_events);
}

TEST(DefaultChannels, PushSubscribersThenSseClients) {
    const std::vector<Channel> channels = rfevent::defaultChannels();
    ASSERT_EQ(2u, channels.size());
    EXPECT_STREQ("sendRedFishEvent dropped the alert", channels[0].alertDropped);
    EXPECT_STREQ("sendRedFishEvent_SSE dropped the alert", channels[1].alertDropped);
    EXPECT_FALSE(channels[0].servesBuiltInFirst);
    EXPECT_TRUE(channels[1].servesBuiltInFirst);
}

} // namespace
