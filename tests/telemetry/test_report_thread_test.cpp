// The test report pipe: whole reads delivered as report texts.
#include "harness/wait.h"
#include "telemetry/recording_channels.h"
#include "telemetry/running_pipe.h"
#include "telemetry/test_report_thread.h"
#include "telemetry/test_report_thread_internal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "base/pipe_thread_internal.h"
#include "frame/lifecycle_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace {

using rfevent::testkit::LogCapture;

using rfevent::testkit::RecordingChannels;

std::string fifoPath() {
    return rfevent::fixedPath(rfevent::FixedPath::TestReportFifo);
}

// Opens the pipe for writing once the loop has created it; -1 when that does not happen.
int openPipeForWriting() {
    struct stat info;
    if (!rfevent::testkit::waitUntil([] {
            struct stat now;
            return stat(fifoPath().c_str(), &now) == 0;
        })) {
        return -1;
    }
    (void)info;
    return open(fifoPath().c_str(), O_WRONLY);
}

// A report-shaped JSON text of exactly size bytes.
std::string reportOfSize(std::size_t size) {
    std::string head = "{\"Id\":\"TestReport\",\"Pad\":\"";
    std::string tail = "\"}";
    return head + std::string(size - head.size() - tail.size(), 'p') + tail;
}

class TestReportPipeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        ASSERT_EQ(0, mkfifo(fifoPath().c_str(), 0660));
        writer_ = open(fifoPath().c_str(), O_RDWR);
        ASSERT_GE(writer_, 0);
        reader_ = rfevent::openPipe(rfevent::testReportPipe(buffer_)).release();
        ASSERT_GE(reader_, 0);
    }
    void TearDown() override {
        close(reader_);
        close(writer_);
    }
    void write(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(writer_, bytes.data(), bytes.size()));
    }

    std::vector<std::string> events() { return channels_.events(); }

    RecordingChannels channels_;
    char buffer_[rfevent::kTestReportBufferSize] = {};
    int writer_ = -1;
    int reader_ = -1;
};

TEST_F(TestReportPipeTest, OneReportGoesOnceToEachFanOut) {
    std::string report = reportOfSize(200);
    LogCapture log;
    write(report);
    EXPECT_EQ(200, rfevent::readPipeOnce(rfevent::testReportPipe(buffer_), reader_));
    EXPECT_EQ((std::vector<std::string>{"subscription:" + report, "sse:" + report}), events());
    EXPECT_TRUE(log.containsAny("TestMetricReport to RF size read  200"));
    for (char byte : buffer_) {
        ASSERT_EQ('\0', byte);
    }
}

TEST_F(TestReportPipeTest, LongWriteIsDeliveredInReadSizedPieces) {
    std::string report = reportOfSize(1500);
    write(report);
    EXPECT_EQ(1023, rfevent::readPipeOnce(rfevent::testReportPipe(buffer_), reader_));
    EXPECT_EQ(477, rfevent::readPipeOnce(rfevent::testReportPipe(buffer_), reader_));
    EXPECT_EQ((std::vector<std::string>{
                  "subscription:" + report.substr(0, 1023), "sse:" + report.substr(0, 1023),
                  "subscription:" + report.substr(1023), "sse:" + report.substr(1023)}),
              events());
}

TEST_F(TestReportPipeTest, FailingDeliveryDropsOnlyThatReport) {
    channels_.throwOn = "first";
    LogCapture log;
    write("first");
    EXPECT_EQ(5, rfevent::readPipeOnce(rfevent::testReportPipe(buffer_), reader_));
    write("second");
    EXPECT_EQ(6, rfevent::readPipeOnce(rfevent::testReportPipe(buffer_), reader_));
    EXPECT_EQ((std::vector<std::string>{"subscription:second", "sse:second"}), events());
    EXPECT_TRUE(log.contains(2, "subscription store broke"));
}

TEST(TestReportThread, FlagSetBeforeTheFirstPassEndsAtOnce) {
    rfevent::testkit::resetSandbox();
    rfevent::g_testReportFlag.store(1);
    LogCapture log;
    EXPECT_EQ(nullptr, RedfishTestMetricReportThread(&rfevent::g_testReportFlag));
    EXPECT_TRUE(log.contains(5, "Redfish Test report notify thread start"));
    EXPECT_TRUE(log.contains(5, "Report notify thread end"));
    struct stat info;
    EXPECT_NE(0, stat(fifoPath().c_str(), &info));
}

TEST(TestReportThread, RunningThreadDeliversWhatIsWritten) {
    rfevent::testkit::resetSandbox();
    RecordingChannels channels;
    char buffer[rfevent::kTestReportBufferSize] = {};
    rfevent::testkit::RunningPipe running(rfevent::testReportPipe(buffer));
    int writer = openPipeForWriting();
    ASSERT_GE(writer, 0);
    std::string report = reportOfSize(200);
    ASSERT_EQ(200, ::write(writer, report.data(), report.size()));
    close(writer);
    EXPECT_TRUE(rfevent::testkit::waitUntil([&] { return channels.events().size() >= 2; }));
    EXPECT_EQ((std::vector<std::string>{"subscription:" + report, "sse:" + report}),
              channels.events());
}

} // namespace

// ---- End to end: the real thread, push subscriber and SSE stand-in --------------------------

#include "harness/sse_receiver.h"
#include "telemetry/push_subscriber.h"

namespace {

using namespace rfevent::testkit;

TEST(TestReportEndToEnd, ReportReachesPushSubscriberAndSseClient) {
    resetSandbox();
    MetricReportSubscriber subscriber;
    HttpsServer& server = subscriber.server;
    Json::Value sse(Json::objectValue);
    sse["client"]["Event-type"] =
        "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/T'";
    writeSseSubscriptions(sse);
    SseReceiver receiver({"", SseReceiver::portFromEnvironment()});

    std::string head = R"({"MetricReportDefinition":{"@odata.id":)"
                       R"("/redfish/v1/TelemetryService/MetricReportDefinitions/T"},)"
                       R"("ReportSequence":"9","Pad":")";
    std::string report = head + std::string(200 - head.size() - 2, 'p') + "\"}";
    ASSERT_EQ(200u, report.size());

    char buffer[rfevent::kTestReportBufferSize] = {};
    RunningPipe running(rfevent::testReportPipe(buffer));
    int writer = openPipeForWriting();
    ASSERT_GE(writer, 0);
    ASSERT_EQ(200, ::write(writer, report.data(), report.size()));

    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    EXPECT_EQ(report, server.requests()[0].body);
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    std::string key =
        "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/T'=";
    EXPECT_EQ(key + "<id:9>:" + report, receiver.pieces()[0]);
    EXPECT_EQ(key + "<END>", receiver.pieces()[1]);
    // A second report is the marker: when it has arrived, the first one was sent only once.
    const std::string marker = reportOfSize(100);
    ASSERT_EQ(100, ::write(writer, marker.data(), marker.size()));
    close(writer);
    ASSERT_TRUE(server.waitForRequests(2, kEventDeadline));
    EXPECT_EQ(2u, server.requestCount());
    EXPECT_EQ(marker, server.requests()[1].body);
}

} // namespace
