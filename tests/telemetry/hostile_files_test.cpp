// Files and pipes the plug-in reads can be left or planted by anyone on the controller: none of
// them may leak descriptors, redirect a read, or stop a pipe for good.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <dirent.h>
#include <string>

#include "base/paths.h"
#include "base/pipe_thread_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "telemetry/log_reports.h"
#include "telemetry/log_reports_internal.h"
#include "telemetry/serial_log_lock.h"
#include "telemetry/test_report_thread_internal.h"

using namespace rfevent;
namespace tk = rfevent::testkit;

namespace {

std::string path(FixedPath which) {
    return fixedPath(which);
}

int openDescriptors() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (dirent* entry = ::readdir(dir)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        ::closedir(dir);
    }
    return count;
}

class HostileFilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        ::mkdir(tk::rooted("/var/tmp/telemetry").c_str(), 0755);
        ::mkdir(tk::rooted("/flash/data0/IERR_LOG").c_str(), 0755);
        ::mkdir(tk::rooted("/flash/data0/IERR_LOG/IERR_LOG1").c_str(), 0755);
    }
    tk::SseReceiver receiver_{{"", tk::SseReceiver::portFromEnvironment()}};
};

TEST_F(HostileFilesTest, AMissingCaptureHoldsTheLockOnceHoweverOftenItIsAnnounced) {
    ASSERT_EQ(sendSerialLogToSSE(), -1); // the first run keeps the lock
    const int held = openDescriptors();
    ASSERT_GT(held, 0); // the count itself works here
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(sendSerialLogToSSE(), -1);
    }
    EXPECT_EQ(openDescriptors(), held);
    EXPECT_FALSE(rfevent::testkit::serialLogLockIsFree()); // still held by the process
    tk::writeFile(path(FixedPath::SerialLogCapture), "back\n");
    EXPECT_EQ(sendSerialLogToSSE(), 0); // the held lock is used, then released
    EXPECT_TRUE(rfevent::testkit::serialLogLockIsFree());
    // The stream stand-in holds a descriptor while it reads a piece: count once it has them all.
    ASSERT_TRUE(receiver_.sendMarker(tk::kEventDeadline));
    EXPECT_EQ(openDescriptors(), held - 1);
}

TEST_F(HostileFilesTest, ALinkAtTheCapturePathIsNotFollowed) {
    const std::string secret = tk::rooted("/secret.txt");
    tk::writeFile(secret, "not for the event stream");
    ASSERT_EQ(::symlink(secret.c_str(), path(FixedPath::SerialLogCapture).c_str()), 0);
    tk::LogCapture log;
    EXPECT_EQ(sendSerialLogToSSE(), -1);
    EXPECT_EQ(tk::readFile(secret), "not for the event stream"); // not sent, not truncated
    EXPECT_FALSE(tk::fileExists(path(FixedPath::SerialLogReport)));
    EXPECT_TRUE(log.contains(2, "File could not be read in local export function Exit"));
}

TEST_F(HostileFilesTest, ALinkAtTheCpuDumpPathIsNotFollowed) {
    const std::string secret = tk::rooted("/secret.bin");
    tk::writeFile(secret, "private");
    ASSERT_EQ(::symlink(secret.c_str(), path(FixedPath::CpuRegisterCapture).c_str()), 0);
    sendCPUDumpToTelemetry();
    EXPECT_FALSE(tk::fileExists(path(FixedPath::CpuRegisterReport)));
    EXPECT_EQ(tk::readFile(secret), "private");
}

TEST_F(HostileFilesTest, ASequenceAtTheLargestIntIsFollowedByOne) {
    tk::writeFile(path(FixedPath::SerialLogSequence), std::to_string(INT_MAX));
    Json::Value report = tk::parseJson(GenerateLogEntryJsonForTelemetry("x", "SerialLog"));
    EXPECT_EQ(report["ReportSequence"], std::to_string(INT_MAX));
    EXPECT_EQ(tk::readFile(path(FixedPath::SerialLogSequence)), "1");
    report = tk::parseJson(GenerateLogEntryJsonForTelemetry("x", "SerialLog"));
    EXPECT_EQ(report["ReportSequence"], "1");
}

TEST_F(HostileFilesTest, ASequenceTooLargeForAnIntReadsAsTheFirst) {
    tk::writeFile(path(FixedPath::CpuRegisterSequence), "99999999999");
    EXPECT_EQ(GetReportSequence(path(FixedPath::CpuRegisterSequence).c_str()), 1);
    tk::writeFile(path(FixedPath::CpuRegisterSequence), "-2147483649");
    EXPECT_EQ(GetReportSequence(path(FixedPath::CpuRegisterSequence).c_str()), 1);
}

TEST_F(HostileFilesTest, AFileAtAPipePathIsLoggedAndThePipeComesBackOnceItIsGone) {
    const std::string pipePath = path(FixedPath::TestReportFifo);
    tk::writeFile(pipePath, "left behind");
    char buffer[kTestReportBufferSize] = {};
    const PipeThread pipe = testReportPipe(buffer);
    tk::LogCapture log;
    EXPECT_FALSE(openPipe(pipe).valid());
    EXPECT_TRUE(log.contains(2, pipePath + " is not a named pipe")) << log.dump();

    // Removed: the next pass finds a named pipe again (ours, opened first, so the product's
    // blocking open returns at once).
    ::unlink(pipePath.c_str());
    ASSERT_EQ(::mkfifo(pipePath.c_str(), 0660), 0);
    int writer = ::open(pipePath.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);
    UniqueFd reader = openPipe(pipe);
    EXPECT_TRUE(reader.valid());
    ::close(writer);
}

} // namespace
