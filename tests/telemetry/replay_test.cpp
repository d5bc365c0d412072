// Last-Event-ID replay: request parsing, report-name routing, the stored report files, the
// telemetry database, the socket framing of a replay, and the infrastructure FIFO thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "base/paths.h"
#include "frame/lifecycle_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "telemetry/replay.h"
#include "telemetry/replay_internal.h"
#include "telemetry/report_db.h"

// Present once the telemetry database lookup is linked in.
using namespace rfevent;

char* execute_report_views(const char* reportName) __attribute__((weak));

namespace {

using namespace std::chrono_literals;
using rfevent::FixedPath;
using rfevent::fixedPath;
using rfevent::testkit::LogCapture;
using rfevent::testkit::SseReceiver;

const std::string kDefinitions = "/redfish/v1/TelemetryService/MetricReportDefinitions/";
const std::string kCpuFilter = "MetricReportDefinition eq '" + kDefinitions + "CPURegisters'";

// A report document with the given sequence, padded with a metric value to `size` bytes.
std::string makeReport(const std::string& name, const Json::Value& sequence, std::size_t size) {
    Json::Value report;
    report["Id"] = name;
    report["Name"] = name + " Report";
    report["ReportSequence"] = sequence;
    report["MetricValues"][0]["MetricValue"] = "";
    const std::size_t overhead = rfevent::testkit::compactJson(report).size();
    report["MetricValues"][0]["MetricValue"] = std::string(size - overhead, 'r');
    return rfevent::testkit::compactJson(report);
}

void storeCpuReport(const std::string& report) {
    rfevent::testkit::writeFile(fixedPath(FixedPath::CpuRegisterReport), report);
}

// The telemetry service's database with one report stored under its resource path.
void writeDatabase(const std::string& reportName, const std::string& report) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(fixedPath(FixedPath::TelemetryDatabase), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE \"JSON\"(root TEXT, \"@odata.id\" TEXT)", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO \"JSON\" VALUES (?, ?)", -1, &statement, nullptr),
              SQLITE_OK);
    const std::string path = "/redfish/v1/TelemetryService/MetricReports/" + reportName;
    sqlite3_bind_text(statement, 1, report.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(statement, 2, path.c_str(), -1, SQLITE_TRANSIENT);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
    sqlite3_close(db);
}

class SseReplayTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }

    SseReceiver receiver{{"", SseReceiver::portFromEnvironment()}};
};

TEST_F(SseReplayTest, LongCpuRegisterReportIsChunkedUnderTheClientsKey) {
    const std::string report = makeReport("CPURegisters", "17", 9000);
    storeCpuReport(report);
    LogCapture log;
    process_last_event_id(("17|" + kCpuFilter).c_str());
    const std::string message = kCpuFilter + "=<id:17>:" + report;
    // 9000 + key bytes: three pieces and the end marker.
    ASSERT_TRUE(receiver.waitForPieces(4, rfevent::testkit::kEventDeadline)) << log.dump();
    auto messages = receiver.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].key, kCpuFilter + "=");
    EXPECT_EQ(messages[0].text, message);
    EXPECT_TRUE(messages[0].complete);
    EXPECT_EQ(receiver.pieces().back(), kCpuFilter + "=<END>");
    EXPECT_EQ(log.count(4, "Report Sequence [17]"), 1);
    EXPECT_EQ(log.count(4, "SSE Filter size:" + std::to_string(message.size())), 1);
    EXPECT_EQ(log.count(5, "seriallog json file exists"), 1);
}

TEST_F(SseReplayTest, ShortReportReplaysOnlyTheEndMarker) {
    storeCpuReport(makeReport("CPURegisters", "17", 500));
    process_last_event_id(("17|" + kCpuFilter).c_str());
    ASSERT_TRUE(receiver.sendMarker(rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{kCpuFilter + "=<END>", SseReceiver::kMarker}));
}

TEST_F(SseReplayTest, SequenceMismatchSendsNothing) {
    storeCpuReport(makeReport("CPURegisters", "18", 9000));
    LogCapture log;
    process_last_event_id(("17|" + kCpuFilter).c_str());
    EXPECT_EQ(log.count(4, "Last Event Id is not matched"), 1);
    // The replay runs on this thread: what it sent was connected before the marker.
    ASSERT_TRUE(receiver.sendMarker(rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

TEST_F(SseReplayTest, NumericSequenceComparesAsItsDigits) {
    storeCpuReport(makeReport("CPURegisters", 17, 500));
    process_last_event_id(("17|" + kCpuFilter).c_str());
    EXPECT_TRUE(receiver.waitForPieces(1, rfevent::testkit::kEventDeadline));
}

TEST_F(SseReplayTest, CapitalisedSerialLogIsRoutedToTheFilesAndFindsNone) {
    rfevent::testkit::writeFile(fixedPath(FixedPath::SerialLogReport),
                                makeReport("SerialLog", "3", 500));
    LogCapture log;
    process_last_event_id(("3|MetricReportDefinition eq '" + kDefinitions + "SerialLog'").c_str());
    EXPECT_EQ(log.count(4, "After the removals [SerialLog]"), 1);
    EXPECT_EQ(log.count(4, "]Entering sendLastLogToSSE Function"), 1);
    EXPECT_EQ(log.count(5, "errno: 2"), 1) << log.dump();
    EXPECT_EQ(log.count(5, "fileStat.st_size: 0"), 1);
    EXPECT_EQ(log.count(4, "report_json is NULL"), 1);
    // The replay runs on this thread: what it sent was connected before the marker.
    ASSERT_TRUE(receiver.sendMarker(rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

TEST_F(SseReplayTest, LowerCaseSeriallogReadsTheSerialLogFile) {
    const std::string filter = "MetricReportDefinition eq '" + kDefinitions + "seriallog'";
    rfevent::testkit::writeFile(fixedPath(FixedPath::SerialLogReport),
                                makeReport("SerialLog", "3", 500));
    LogCapture log;
    process_last_event_id(("3|" + filter).c_str());
    ASSERT_TRUE(receiver.waitForPieces(1, rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{filter + "=<END>"});
    EXPECT_EQ(log.count(5, "seriallog json file exists"), 1);
}

TEST_F(SseReplayTest, ShortenedAndEmptyNamesGoToTheFilesToo) {
    LogCapture log;
    process_last_event_id("1|MetricReportDefinition eq '/x/Serial'");
    process_last_event_id("1|MetricReportDefinition eq '/x/cpu')");
    process_last_event_id("1|MetricReportDefinition eq '/x/')");
    EXPECT_EQ(log.count(4, "]Entering sendLastLogToSSE Function"), 3);
    EXPECT_EQ(log.count(4, "report_json is NULL"), 3);
}

TEST_F(SseReplayTest, NameKeepsOpeningParenthesesAndDropsQuotesAndClosingOnes) {
    LogCapture log;
    process_last_event_id("1|(MetricReportDefinition eq '/a/b/(Po')w)er')");
    EXPECT_EQ(log.count(4, "Substring after slash:[1|(MetricReportDefinition"), 1);
    EXPECT_EQ(log.count(4, "Substring after slash:[(Po')w)er')]"), 1);
    EXPECT_EQ(log.count(4, "After the removals [(Power]"), 1) << log.dump();
}

TEST_F(SseReplayTest, OtherNamesAreLookedUpInTheTelemetryDatabase) {
    const std::string filter = "(MetricReportDefinition eq '" + kDefinitions + "PowerMetrics')";
    const std::string report = makeReport("PowerMetrics", "41", 6000);
    writeDatabase("PowerMetrics", report);
    LogCapture log;
    process_last_event_id(("41|" + filter).c_str());
    EXPECT_EQ(log.count(4, "After the removals [PowerMetrics]"), 1);
    EXPECT_EQ(log.count(4, "]Entering sendLastLogToSSE Function"), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, rfevent::testkit::kEventDeadline)) << log.dump();
    auto messages = receiver.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, filter + "=<id:41>:" + report);
    EXPECT_TRUE(messages[0].complete);
}

TEST_F(SseReplayTest, ReportMissingFromTheDatabaseSendsNothing) {
    writeDatabase("Other", makeReport("Other", "1", 300));
    LogCapture log;
    process_last_event_id("1|MetricReportDefinition eq '/x/PowerMetrics'");
    EXPECT_EQ(log.count(4, "report_json is NULL"), 1);
    // The replay runs on this thread: what it sent was connected before the marker.
    ASSERT_TRUE(receiver.sendMarker(rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

TEST_F(SseReplayTest, RequestWithoutSecondFieldIsDropped) {
    LogCapture log;
    process_last_event_id("17");
    process_last_event_id("17|");
    process_last_event_id("|");
    process_last_event_id("");
    EXPECT_EQ(log.count(2, "Replay request without filter text dropped"), 4);
    EXPECT_EQ(log.countAny("Substring after slash"), 0);
    // The replay runs on this thread: what it sent was connected before the marker.
    ASSERT_TRUE(receiver.sendMarker(rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

TEST_F(SseReplayTest, FurtherFieldsAreIgnoredAndEmptyOnesVanish) {
    storeCpuReport(makeReport("CPURegisters", "17", 500));
    process_last_event_id(("||17||" + kCpuFilter + "|ignored|18").c_str());
    ASSERT_TRUE(receiver.waitForPieces(1, rfevent::testkit::kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{kCpuFilter + "=<END>"});
}

TEST_F(SseReplayTest, StoredReportReader) {
    EXPECT_EQ(sendLastLogToSSE("CPURegisters"), nullptr); // no file
    EXPECT_EQ(sendLastLogToSSE("cpuregisters"), nullptr); // exact names only
    rfevent::testkit::writeFile(fixedPath(FixedPath::CpuRegisterReport), "");
    LogCapture log;
    EXPECT_EQ(sendLastLogToSSE("CPURegisters"), nullptr); // empty file
    EXPECT_EQ(log.countAny("seriallog json file exists"), 0);
    rfevent::testkit::writeFile(fixedPath(FixedPath::CpuRegisterReport), "{\"a\":1}");
    char* content = sendLastLogToSSE("CPURegisters");
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "{\"a\":1}");
    std::free(content);
    EXPECT_EQ(log.count(5, "lSize :7"), 1);
    EXPECT_EQ(log.count(4, "]Exiting sendLastLogToSSE Function"), 1);
}

TEST_F(SseReplayTest, FailedOpenOfTheReportFileIsLikeAFailedSeek) {
    rfevent::testkit::writeFile(fixedPath(FixedPath::CpuRegisterReport), "{\"a\":1}");
    LogCapture log;
    process_last_event_id("x|y"); // the log file is open before descriptors run out
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    int lowest = dup(0);
    ASSERT_GE(lowest, 0);
    close(lowest);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowest);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    char* content = sendLastLogToSSE("CPURegisters");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(log.count(2, "File operation seek failed in local export function"), 1) << log.dump();
}

TEST_F(SseReplayTest, OnePassHandlesAReadBufferAndZeroesIt) {
    storeCpuReport(makeReport("CPURegisters", "17", 500));
    char buffer[kSseInfraBufferSize];
    std::memset(buffer, 'x', sizeof buffer);
    const std::string request = "17|" + kCpuFilter;
    std::memcpy(buffer, request.c_str(), request.size() + 1);
    LogCapture log;
    sseInfraHandleRead(buffer, static_cast<ssize_t>(request.size()));
    EXPECT_EQ(buffer[kSseInfraBufferSize - 1], 0);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, '\0'));
    EXPECT_EQ(log.count(5, "SSEINFRAFIFO read happened " + request), 1);
    EXPECT_EQ(log.count(5, "SSEInfra to RF " + request + ", " + std::to_string(request.size())), 1);
    ASSERT_TRUE(receiver.waitForPieces(1, rfevent::testkit::kEventDeadline));
}

TEST_F(SseReplayTest, OnePassWithNothingReadOnlyLogs) {
    char buffer[kSseInfraBufferSize] = {};
    LogCapture log;
    sseInfraHandleRead(buffer, 0);
    EXPECT_EQ(log.count(5, "SSEINFRAFIFO read happened"), 1);
    EXPECT_EQ(log.countAny("SSEInfra to RF"), 0);
}

TEST_F(SseReplayTest, OnePassDropsARequestThatRaisesAndGoesOn) {
    Json::Value report;
    report["Name"] = "CPURegisters Report";
    report["ReportSequence"]["nested"] = 1;
    storeCpuReport(rfevent::testkit::compactJson(report));
    char buffer[kSseInfraBufferSize] = {};
    const std::string request = "17|" + kCpuFilter;
    std::memcpy(buffer, request.c_str(), request.size());
    LogCapture log;
    sseInfraHandleRead(buffer, static_cast<ssize_t>(request.size()));
    EXPECT_EQ(log.count(2, "Replay request dropped"), 1) << log.dump();
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(SseReplayTest, LoopDoesNothingWhileTheFlagIsRaised) {
    rfevent::g_sseInfraFlag.store(1);
    LogCapture log;
    char buffer[kSseInfraBufferSize] = {};
    rfevent::runPipeThread(sseInfraPipe(buffer), &rfevent::g_sseInfraFlag);
    EXPECT_FALSE(rfevent::testkit::fileExists(fixedPath(FixedPath::SseInfraFifo)));
    EXPECT_EQ(log.countAny("FIFO CREATION"), 0);
}

// The real thread body, in a child process (it never returns): one request through the real
// FIFO, then the idle FIFO is polled every 2 seconds.
TEST_F(SseReplayTest, ThreadBodyServesTheFifoAndPollsWhenIdle) {
    receiver.stop();
    storeCpuReport(makeReport("CPURegisters", "17", 6000));
    LogCapture log;
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rfevent::g_sseInfraFlag.store(0);
        RedfishSSEInfraNotifyThread(&rfevent::g_sseInfraFlag);
        _exit(0);
    }
    SseReceiver live({"", SseReceiver::portFromEnvironment()});
    const std::string path = fixedPath(FixedPath::SseInfraFifo);
    int fd = -1;
    rfevent::testkit::waitUntil([&] {
        fd = open(path.c_str(), O_WRONLY | O_NONBLOCK); // succeeds once the thread reads
        return fd >= 0;
    });
    if (fd < 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        FAIL() << "the thread never opened its pipe\n" << log.dump();
    }
    const std::string request = "17|" + kCpuFilter;
    EXPECT_EQ(write(fd, request.c_str(), request.size()), static_cast<ssize_t>(request.size()));
    close(fd);
    const bool delivered = live.waitForPieces(3, rfevent::testkit::kEventDeadline);
    // After the pacing pause the idle pipe is read again.
    EXPECT_TRUE(rfevent::testkit::waitUntil(
        [&] { return log.count(5, "SSEINFRAFIFO read happened") >= 2; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(delivered) << log.dump();
    auto messages = live.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(messages[0].complete);
    EXPECT_EQ(log.count(5, "SSE Infra notify thread start"), 1);
    EXPECT_EQ(log.count(5, "Redfish SSE infra  FIFO CREATION"), 1);
    EXPECT_EQ(log.count(5, "waiting on TELEMETRYFIFO  " + path), 1);
    EXPECT_EQ(log.count(5, "SSEInfra to RF " + request), 1);
    EXPECT_GE(log.count(5, "SSEINFRAFIFO read happened"), 2) << log.dump();
}

} // namespace
