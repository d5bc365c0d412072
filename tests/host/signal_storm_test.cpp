// A host whose periodic timer signal is handled without SA_RESTART: the pipe threads, an alert
// with retries and a report run while the signal reaches every thread each millisecond.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "base/paths.h"
#include "harness/log_capture.h"
#include "harness/signal_storm.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "host/host_setup.h"
#include "telemetry/notify_thread_internal.h"
#include "telemetry/replay_internal.h"
#include "telemetry/running_pipe.h"
#include "telemetry/test_report_thread_internal.h"

using namespace rfevent;
using namespace rfevent::testkit;

namespace {

using Clock = std::chrono::steady_clock;

bool exists(const char* path) {
    struct stat info;
    return ::stat(path, &info) == 0;
}

// Opens the pipe for writing once its reader has it open (a non-blocking open, which the storm
// cannot interrupt), then makes the writes blocking.
int openWriter(const char* path) {
    int fd = -1;
    waitUntil([&] {
        fd = ::open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return fd >= 0;
    });
    if (fd >= 0) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    }
    return fd;
}

// A writer that opens the pipe once its loop has made it, then goes away: the loop's reads
// find no writer from then on and pace themselves with the pipe's own pause.
void openAndLeave(const char* path) {
    ASSERT_TRUE(waitUntil([&] { return exists(path); }));
    int fd = openWriter(path);
    ASSERT_GE(fd, 0);
    ::close(fd);
}

TEST(SignalStormTest, PipeThreadsRetriesAndReportsKeepTheirTimeAndLogNoFailure) {
    HostSetup host;
    host.subscribeAll();
    SseReceiver receiver({fixedPath(FixedPath::SseFifo), SseReceiver::portFromEnvironment()});
    LogCapture log;
    SignalStorm storm;
    ASSERT_TRUE(waitUntil([&] { return storm.handled() > 50; }));

    TelemetryPipeState telemetryState;
    char testBuffer[kTestReportBufferSize] = {};
    char replayBuffer[kSseInfraBufferSize] = {};
    RunningPipe telemetry(telemetryPipe(telemetryState));
    RunningPipe testReports(testReportPipe(testBuffer));
    RunningPipe replay(sseInfraPipe(replayBuffer));
    openAndLeave(fixedPath(FixedPath::TelemetryFifo));
    const auto telemetryIdleSince = Clock::now();
    const int telemetryReadsBefore = log.countAny("TELEMETRYFIFO read happened");

    // An alert to a destination that is down: two attempts, each followed by its full pause.
    writeDeliveryAttributes(2, 1, "No");
    host.server->setDropConnections(true);
    const auto alertStart = Clock::now();
    HostSetup::sendAlert();
    const auto alertTook = Clock::now() - alertStart;
    EXPECT_GE(alertTook, std::chrono::seconds(2));
    EXPECT_EQ(log.count(2, "curl_easy_perform failed with status"), 2) << log.dump();

    // A report through the test report pipe reaches the destination and the SSE client.
    host.server->setDropConnections(false);
    writeDeliveryAttributes(1, kRoomyIntervalSeconds, "No");
    const char* fifo = fixedPath(FixedPath::TestReportFifo);
    ASSERT_TRUE(waitUntil([&] { return exists(fifo); }));
    int writer = openWriter(fifo);
    ASSERT_GE(writer, 0);
    // One read of the pipe is one report: a report that fits one read.
    const std::string small = hostReport(kTestReportBufferSize - 24);
    ASSERT_EQ(static_cast<ssize_t>(small.size()), ::write(writer, small.data(), small.size()));
    ::close(writer);
    ASSERT_TRUE(host.server->waitForRequests(1, kEventDeadline));
    ASSERT_TRUE(waitUntil([&] {
        for (const SseMessage& message : receiver.messages()) {
            if (message.complete) {
                return true;
            }
        }
        return false;
    }));
    ASSERT_TRUE(receiver.sendMarker(kEventDeadline));
    const auto telemetryIdleFor = Clock::now() - telemetryIdleSince;
    const long signals = storm.handled();

    EXPECT_GT(signals, 100); // the storm was on throughout
    EXPECT_EQ(log.countAny("Named pipe open failed"), 0);
    EXPECT_EQ(log.countAny("client: connect failure"), 0);
    EXPECT_EQ(log.countAny("select fd error"), 0);
    EXPECT_EQ(log.countAny("send error"), 0);
    EXPECT_EQ(log.countAny("SSE FIFO Open Error"), 0);
    EXPECT_EQ(log.countAny("Write FIFO writeCount"), 0);
    EXPECT_EQ(receiver.fifoMessages().size(), 1u);
    EXPECT_EQ(host.server->requests()[0].body, small);
    // The idle telemetry pipe is read about once a second, not once per signal.
    const int telemetryReads = log.countAny("TELEMETRYFIFO read happened") - telemetryReadsBefore;
    const auto idleSeconds =
        std::chrono::duration_cast<std::chrono::seconds>(telemetryIdleFor).count();
    EXPECT_LE(telemetryReads, idleSeconds + 2)
        << telemetryReads << " reads in " << idleSeconds << " s";
}

} // namespace
