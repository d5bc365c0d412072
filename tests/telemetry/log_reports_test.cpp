// Serial-log and CPU-register reports: real capture files, a real lock held by another
// process, the SSE stand-in on the socket and a push subscriber over mutual TLS.
#include "base/builtin_reports_internal.h"
#include "sse/filter.h"
#include "sse/filter_internal.h"
#include "telemetry/log_reports.h"
#include "telemetry/log_reports_internal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <thread>

#include "base/clock_internal.h"
#include "base/paths.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "telemetry/push_subscriber.h"
#include "telemetry/serial_log_lock.h"

using namespace rfevent;

namespace {

using rfevent::fixedPath;
using rfevent::FixedPath;
using rfevent::testkit::kEventDeadline;
using rfevent::testkit::LogCapture;
using rfevent::testkit::parseJson;
using rfevent::testkit::readFile;
using rfevent::testkit::writeFile;

const std::string kSerialPrefix =
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog'=";
const std::string kCpuPrefix =
    "MetricReportDefinition eq "
    "'/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters'=";

std::string path(FixedPath which) {
    return fixedPath(which);
}

// A fixed clock: 2024-05-01T13:45:10 UTC and 123456 microseconds.
int fixedClock(struct timeval* now) {
    now->tv_sec = 1714571110;
    now->tv_usec = 123456;
    return 0;
}
int brokenClock(struct timeval*) {
    return -1;
}

class LogReportsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        serialLogSequence.store(0);
        cpuRegisterSequence.store(0);
    }
    void TearDown() override { g_wallClock = savedClock_; }

    WallClock savedClock_ = g_wallClock;
};

TEST_F(LogReportsTest, SerialLogDocumentHasEveryMember) {
    g_wallClock = fixedClock;
    std::string text = GenerateLogEntryJsonForTelemetry("boot ok", "SerialLog");
    Json::Value doc = parseJson(text);
    EXPECT_EQ(rfevent::testkit::compactJson(doc), text); // compact, sorted members
    EXPECT_EQ("/redfish/v1/$metadata#MetricReport.MetricReport", doc["@odata.context"].asString());
    EXPECT_EQ("/redfish/v1/TelemetryService/MetricReports/SerialLog", doc["@odata.id"].asString());
    EXPECT_EQ("#MetricReport.v1_5_0.MetricReport", doc["@odata.type"].asString());
    EXPECT_EQ("SerialLog", doc["Id"].asString());
    EXPECT_EQ("SerialLog Report", doc["Name"].asString());
    ASSERT_TRUE(doc["ReportSequence"].isString());
    EXPECT_EQ("1", doc["ReportSequence"].asString());
    EXPECT_EQ("2024-05-01T13:45:10.456Z", doc["Timestamp"].asString()); // usec % 1000
    ASSERT_TRUE(doc["MetricValues@odata.count"].isUInt());
    EXPECT_EQ(1u, doc["MetricValues@odata.count"].asUInt());
    ASSERT_EQ(1u, doc["MetricValues"].size());
    const Json::Value& value = doc["MetricValues"][0];
    EXPECT_EQ("boot ok", value["MetricValue"].asString());
    EXPECT_EQ("SerialLogBuffer", value["MetricId"].asString());
    EXPECT_EQ("#OrvaMetricReport.v1_0_0.OrvaMetricReport",
              value["Oem"]["Orva"]["@odata.type"].asString());
    EXPECT_EQ("SerialLog", value["Oem"]["Orva"]["Label"].asString());
    EXPECT_EQ(3u, value.size());
    EXPECT_EQ(9u, doc.size());
}

TEST_F(LogReportsTest, TimestampDigitsAreMicrosecondsModuloThousand) {
    g_wallClock = [](struct timeval* now) {
        now->tv_sec = 0;
        now->tv_usec = 999007; // 999 ms, but the digits are 007
        return 0;
    };
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("", "SerialLog"));
    EXPECT_EQ("1970-01-01T00:00:00.007Z", doc["Timestamp"].asString());
}

TEST_F(LogReportsTest, UnreadableClockGivesNullTimestamp) {
    g_wallClock = brokenClock;
    LogCapture log;
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("", "SerialLog"));
    ASSERT_TRUE(doc.isMember("Timestamp"));
    EXPECT_TRUE(doc["Timestamp"].isNull());
    EXPECT_TRUE(log.containsAny("fetching time failed,setting timestamp to NULL"));
}

TEST_F(LogReportsTest, FirstReportOfATypeHasSequenceOneAndLeavesTwo) {
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("x", "CPURegisters"));
    EXPECT_EQ("1", doc["ReportSequence"].asString());
    EXPECT_EQ("2", readFile(path(FixedPath::CpuRegisterSequence)));
    EXPECT_EQ("/redfish/v1/TelemetryService/MetricReports/CPURegisters",
              doc["@odata.id"].asString());
    EXPECT_EQ("CPURegistersBuffer", doc["MetricValues"][0]["MetricId"].asString());
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::SerialLogSequence)));

    doc = parseJson(GenerateLogEntryJsonForTelemetry("x", "CPURegisters"));
    EXPECT_EQ("2", doc["ReportSequence"].asString());
    EXPECT_EQ("3", readFile(path(FixedPath::CpuRegisterSequence)));
}

TEST_F(LogReportsTest, SequenceContinuesFromItsFile) {
    writeFile(path(FixedPath::SerialLogSequence), "41");
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("x", "SerialLog"));
    EXPECT_EQ("41", doc["ReportSequence"].asString());
    EXPECT_EQ("42", readFile(path(FixedPath::SerialLogSequence)));
    EXPECT_EQ(41, serialLogSequence.load());
}

TEST_F(LogReportsTest, UnwritableSequenceFileRepeatsTheNumber) {
    // A folder in the file's place: it can be opened for reading but not written.
    ASSERT_EQ(0, mkdir(path(FixedPath::SerialLogSequence).c_str(), 0755));
    EXPECT_EQ(
        "1",
        parseJson(GenerateLogEntryJsonForTelemetry("x", "SerialLog"))["ReportSequence"].asString());
    EXPECT_EQ(
        "1",
        parseJson(GenerateLogEntryJsonForTelemetry("x", "SerialLog"))["ReportSequence"].asString());
}

TEST_F(LogReportsTest, UnknownTypeStillGivesADocumentWithoutSequence) {
    LogCapture log;
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("p", "Other"));
    EXPECT_EQ("/redfish/v1/$metadata#MetricReport.MetricReport", doc["@odata.id"].asString());
    EXPECT_FALSE(doc.isMember("ReportSequence"));
    EXPECT_EQ("Other Report", doc["Name"].asString());
    EXPECT_EQ("OtherBuffer", doc["MetricValues"][0]["MetricId"].asString());
    EXPECT_EQ(2, log.count(5, "invalid type:Other"));
}

TEST_F(LogReportsTest, TypeNamesMatchAsPrefixes) {
    Json::Value doc = parseJson(GenerateLogEntryJsonForTelemetry("p", "Serial"));
    EXPECT_EQ("/redfish/v1/TelemetryService/MetricReports/SerialLog", doc["@odata.id"].asString());
    // The empty type matches both; the CPU register type is tested first.
    doc = parseJson(GenerateLogEntryJsonForTelemetry("p", ""));
    EXPECT_EQ("/redfish/v1/TelemetryService/MetricReports/CPURegisters",
              doc["@odata.id"].asString());
    EXPECT_EQ("2", readFile(path(FixedPath::CpuRegisterSequence)));
    // ...while the SSE sender tests the serial log first.
    rfevent::testkit::SseReceiver receiver(
        {"", rfevent::testkit::SseReceiver::portFromEnvironment()});
    EXPECT_EQ(0, sendLog_to_sse("{}", ""));
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(kSerialPrefix + "<END>", receiver.pieces()[1]);
}

TEST_F(LogReportsTest, SequenceFileReadAndWrite) {
    std::string file = rfevent::testkit::rooted("/var/tmp/telemetry/seq.txt");
    EXPECT_EQ(1, GetReportSequence(file.c_str())); // absent
    writeFile(file, "not a number");
    EXPECT_EQ(1, GetReportSequence(file.c_str()));
    EXPECT_EQ(1, SetReportSequence(file.c_str(), 17));
    EXPECT_EQ("17", readFile(file)); // no newline
    EXPECT_EQ(17, GetReportSequence(file.c_str()));
    EXPECT_EQ(0, SetReportSequence(rfevent::testkit::rooted("/no/such/dir/seq").c_str(), 3));
}

TEST_F(LogReportsTest, EncodeStrReplacesEverySemicolon) {
    std::string text = "a;b;;c;";
    EncodeStr(text);
    EXPECT_EQ("a%3Bb%3B%3Bc%3B", text);
    std::string none = "plain";
    EncodeStr(none);
    EXPECT_EQ("plain", none);
}

std::string encode(const std::string& data, std::size_t* length = nullptr) {
    char* out =
        base64Encode(reinterpret_cast<const unsigned char*>(data.data()), data.size(), length);
    std::string result = out ? out : "<null>";
    std::free(out);
    return result;
}

TEST_F(LogReportsTest, Base64MatchesTheStandardVectors) {
    EXPECT_EQ("", encode(""));
    EXPECT_EQ("Zg==", encode("f"));
    EXPECT_EQ("Zm8=", encode("fo"));
    EXPECT_EQ("Zm9v", encode("foo"));
    EXPECT_EQ("Zm9vYg==", encode("foob"));
    EXPECT_EQ("Zm9vYmE=", encode("fooba"));
    std::size_t length = 0;
    EXPECT_EQ("Zm9vYmFy", encode("foobar", &length));
    EXPECT_EQ(8u, length);
    EXPECT_EQ("//79", encode(std::string("\xff\xfe\xfd", 3)));
    EXPECT_EQ("AA==", encode(std::string(1, '\0')));
}

TEST_F(LogReportsTest, Base64HasNoLineBreaksAndFitsItsBlock) {
    for (std::size_t n = 0; n < 400; ++n) {
        std::size_t length = 0;
        std::string out = encode(std::string(n, 'q'), &length);
        ASSERT_EQ((n + 2) / 3 * 4, out.size()) << n;
        ASSERT_EQ(out.size(), length);
        ASSERT_EQ(std::string::npos, out.find('\n'));
    }
}

TEST_F(LogReportsTest, Base64SizeOverflowGivesNull) {
    unsigned char byte = 0;
    EXPECT_EQ(nullptr, base64Encode(&byte, static_cast<std::size_t>(-1), nullptr));
}

// ---- SSE sender ----------------------------------------------------------------------------

class LogReportsSseTest : public LogReportsTest {
  protected:
    rfevent::testkit::SseReceiver receiver_{
        {"", rfevent::testkit::SseReceiver::portFromEnvironment()}};
};

TEST_F(LogReportsSseTest, MessageCarriesTheInMemoryCounterThenIncrementsIt) {
    serialLogSequence.store(7);
    EXPECT_EQ(0, sendLog_to_sse(R"({"a":1})", "SerialLog"));
    ASSERT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
    auto pieces = receiver_.pieces();
    EXPECT_EQ(kSerialPrefix + R"(<id:7>:{"a":1})", pieces[0]);
    EXPECT_EQ(kSerialPrefix + "<END>", pieces[1]);
    EXPECT_EQ(8, serialLogSequence.load());
}

TEST_F(LogReportsSseTest, CpuRegistersUseTheirOwnFilterAndCounter) {
    cpuRegisterSequence.store(3);
    EXPECT_EQ(0, sendLog_to_sse("{}", "CPURegisters"));
    ASSERT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(kCpuPrefix + "<id:3>:{}", receiver_.pieces()[0]);
    EXPECT_EQ(kCpuPrefix + "<END>", receiver_.pieces()[1]);
}

TEST_F(LogReportsSseTest, UnknownTypeSendsNothing) {
    LogCapture log;
    EXPECT_EQ(-1, sendLog_to_sse("{}", "Other"));
    EXPECT_TRUE(log.contains(2, "invalid type"));
    // Only the marker sent after the call arrives: the call sent nothing.
    ASSERT_TRUE(receiver_.sendMarker(kEventDeadline));
    EXPECT_EQ(receiver_.pieces(), std::vector<std::string>{rfevent::testkit::SseReceiver::kMarker});
}

TEST_F(LogReportsSseTest, LongMessageGoesThroughChunking) {
    std::string report = "{\"p\":\"" + std::string(5000, 'z') + "\"}";
    EXPECT_EQ(0, sendLog_to_sse(report.c_str(), "SerialLog"));
    ASSERT_TRUE(receiver_.waitForPieces(3, kEventDeadline));
    auto pieces = receiver_.pieces();
    ASSERT_EQ(3u, pieces.size());
    EXPECT_EQ(4096u, pieces[0].size());
    EXPECT_EQ(0u, pieces[1].rfind(kSerialPrefix, 0));
    EXPECT_EQ(kSerialPrefix + "<END>", pieces[2]);
    auto messages = receiver_.messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_TRUE(messages[0].complete);
    EXPECT_EQ(kSerialPrefix + "<id:0>:" + report, messages[0].text);
}

// ---- Serial log ------------------------------------------------------------------------------

// Holds the serial-log lock in a child process until released.
class LockHolder {
  public:
    LockHolder() {
        int ready[2];
        EXPECT_EQ(0, pipe(ready));
        EXPECT_EQ(0, pipe(release_));
        child_ = fork();
        if (child_ == 0) {
            close(release_[1]); // so that the parent's close is seen as end of file
            int fd = open(fixedPath(FixedPath::SerialLogLock), O_WRONLY | O_CREAT, 0644);
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            char ok = fcntl(fd, F_SETLK, &lock) == 0 ? 'y' : 'n';
            (void)!write(ready[1], &ok, 1);
            char byte;
            (void)!read(release_[0], &byte, 1);
            _exit(0);
        }
        char ok = 0;
        EXPECT_EQ(1, read(ready[0], &ok, 1));
        EXPECT_EQ('y', ok);
        close(ready[0]);
        close(ready[1]);
    }
    ~LockHolder() {
        close(release_[1]);
        close(release_[0]);
        waitpid(child_, nullptr, 0);
    }

  private:
    int release_[2] = {-1, -1};
    pid_t child_ = -1;
};

class SerialLogTest : public LogReportsSseTest {};

TEST_F(SerialLogTest, CaptureBecomesAStoredAndSentReportAndIsEmptied) {
    writeFile(path(FixedPath::SerialLogCapture), "line one\nline two;end\n");
    EXPECT_EQ(0, sendSerialLogToSSE());
    std::string stored = readFile(path(FixedPath::SerialLogReport));
    Json::Value doc = parseJson(stored);
    EXPECT_EQ("line one\nline two;end\n", doc["MetricValues"][0]["MetricValue"].asString());
    EXPECT_EQ("1", doc["ReportSequence"].asString());
    EXPECT_EQ("2", readFile(path(FixedPath::SerialLogSequence)));
    EXPECT_EQ("", readFile(path(FixedPath::SerialLogCapture)));
    EXPECT_TRUE(rfevent::testkit::serialLogLockIsFree());

    ASSERT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
    std::string expected = kSerialPrefix + "<id:1>:" + stored;
    EncodeStr(expected);
    EXPECT_EQ(expected, receiver_.pieces()[0]);
    EXPECT_NE(std::string::npos, receiver_.pieces()[0].find("two%3Bend"));
    EXPECT_EQ(kSerialPrefix + "<END>", receiver_.pieces()[1]);
}

TEST_F(SerialLogTest, EmptyCaptureStillGivesAReport) {
    writeFile(path(FixedPath::SerialLogCapture), "");
    EXPECT_EQ(0, sendSerialLogToSSE());
    Json::Value doc = parseJson(readFile(path(FixedPath::SerialLogReport)));
    EXPECT_EQ("", doc["MetricValues"][0]["MetricValue"].asString());
    EXPECT_EQ("", readFile(path(FixedPath::SerialLogCapture)));
    EXPECT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
}

TEST_F(SerialLogTest, CaptureIsReportedUpToItsFirstNulAndEmptiedWhole) {
    writeFile(path(FixedPath::SerialLogCapture), std::string("before\0after", 12));
    EXPECT_EQ(0, sendSerialLogToSSE());
    Json::Value doc = parseJson(readFile(path(FixedPath::SerialLogReport)));
    EXPECT_EQ("before", doc["MetricValues"][0]["MetricValue"].asString());
    EXPECT_EQ("", readFile(path(FixedPath::SerialLogCapture)));
}

TEST_F(SerialLogTest, LockHeldByAnotherProcessGivesMinusOneAtOnce) {
    writeFile(path(FixedPath::SerialLogCapture), "kept");
    LockHolder holder;
    LogCapture log;
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, sendSerialLogToSSE());
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    EXPECT_TRUE(log.contains(5, "Error in serial log file open/lock:"));
    EXPECT_EQ("kept", readFile(path(FixedPath::SerialLogCapture)));
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::SerialLogReport)));
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::SerialLogSequence)));
}

TEST_F(SerialLogTest, MissingCaptureKeepsTheLockHeld) {
    LogCapture log;
    EXPECT_EQ(-1, sendSerialLogToSSE());
    EXPECT_TRUE(log.contains(2, "File could not be read in local export function Exit"));
    EXPECT_FALSE(rfevent::testkit::serialLogLockIsFree());
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::SerialLogSequence)));
}

TEST_F(SerialLogTest, LongCaptureGoesThroughChunking) {
    writeFile(path(FixedPath::SerialLogCapture), std::string(6000, 'L'));
    EXPECT_EQ(0, sendSerialLogToSSE());
    ASSERT_TRUE(receiver_.waitForPieces(3, kEventDeadline));
    auto messages = receiver_.messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_TRUE(messages[0].complete);
    EXPECT_EQ(kSerialPrefix + "<id:1>:" + readFile(path(FixedPath::SerialLogReport)),
              messages[0].text);
}

// ---- CPU register dump -----------------------------------------------------------------------

TEST_F(LogReportsSseTest, OneByteDumpGivesFourCharactersEndingInPadding) {
    writeFile(path(FixedPath::CpuRegisterCapture), std::string(1, '\x7f'));
    sendCPUDumpToTelemetry();
    Json::Value doc = parseJson(readFile(path(FixedPath::CpuRegisterReport)));
    std::string value = doc["MetricValues"][0]["MetricValue"].asString();
    EXPECT_EQ(4u, value.size());
    EXPECT_EQ("fw==", value);
    EXPECT_EQ("CPURegisters", doc["Id"].asString());
    EXPECT_EQ("2", readFile(path(FixedPath::CpuRegisterSequence)));
    EXPECT_EQ(std::string(1, '\x7f'), readFile(path(FixedPath::CpuRegisterCapture))); // kept
    ASSERT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(0u, receiver_.pieces()[0].rfind(kCpuPrefix + "<id:1>:", 0));
}

TEST_F(LogReportsSseTest, MissingDumpSendsNothing) {
    LogCapture log;
    sendCPUDumpToTelemetry();
    EXPECT_TRUE(log.contains(2, "File could not be read in local export function Exit"));
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::CpuRegisterReport)));
    EXPECT_FALSE(rfevent::testkit::fileExists(path(FixedPath::CpuRegisterSequence)));
}

TEST_F(LogReportsSseTest, CpuRegisterReportStoresAndSends) {
    EXPECT_EQ(0, sendCPURegisterReport("QUJD", "CPURegisters"));
    Json::Value doc = parseJson(readFile(path(FixedPath::CpuRegisterReport)));
    EXPECT_EQ("QUJD", doc["MetricValues"][0]["MetricValue"].asString());
    EXPECT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
}

mode_t modeOf(const std::string& file) {
    struct stat info = {};
    EXPECT_EQ(0, stat(file.c_str(), &info)) << file;
    return info.st_mode & 07777;
}

TEST_F(SerialLogTest, FilesTheReportsCreateGetTheirOwnModesWhateverTheUmask) {
    writeFile(path(FixedPath::SerialLogCapture), "boot\n");
    const mode_t saved = umask(0);
    EXPECT_EQ(0, sendSerialLogToSSE());
    EXPECT_EQ(0, sendCPURegisterReport("QUJD", "CPURegisters"));
    umask(saved);
    ASSERT_TRUE(receiver_.waitForPieces(4, kEventDeadline));
    EXPECT_EQ(0644u, modeOf(path(FixedPath::SerialLogSequence)));
    EXPECT_EQ(0644u, modeOf(path(FixedPath::CpuRegisterSequence)));
    // Nothing else the reports leave behind is writable by others either.
    for (FixedPath other :
         {FixedPath::SerialLogReport, FixedPath::CpuRegisterReport, FixedPath::SerialLogLock}) {
        EXPECT_EQ(0u, modeOf(path(other)) & 022) << path(other);
    }
}

} // namespace

// ---- Push subscribers ------------------------------------------------------------------------

#include "telemetry/push_subscriber.h"

namespace {

using namespace rfevent::testkit;

TEST_F(SerialLogTest, PushSubscriberGetsTheDocumentUnchanged) {
    MetricReportSubscriber subscriber;
    HttpsServer& server = subscriber.server;

    writeFile(path(FixedPath::SerialLogCapture), "a;b");
    EXPECT_EQ(0, sendSerialLogToSSE());
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    std::string body = server.requests()[0].body;
    EXPECT_EQ(readFile(path(FixedPath::SerialLogReport)), body);
    EXPECT_NE(std::string::npos, body.find("a;b"));
    ASSERT_TRUE(receiver_.waitForPieces(2, kEventDeadline));
    EXPECT_NE(std::string::npos, receiver_.pieces()[0].find("a%3Bb"));
}

TEST_F(LogReportsSseTest, CpuRegisterReportReachesPushSubscriber) {
    MetricReportSubscriber subscriber;
    HttpsServer& server = subscriber.server;

    writeFile(path(FixedPath::CpuRegisterCapture), "foobar");
    sendCPUDumpToTelemetry();
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    Json::Value doc = parseJson(server.requests()[0].body);
    EXPECT_EQ("Zm9vYmFy", doc["MetricValues"][0]["MetricValue"].asString());
}

} // namespace
