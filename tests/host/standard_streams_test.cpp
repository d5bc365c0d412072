// A host that closed its standard streams: nothing of the plug-in takes descriptor 0, 1 or 2,
// so nothing the host (or the stand-alone logger) writes to standard error reaches the SSE
// stream, and no file of the plug-in hides behind a standard stream.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "host/host_setup.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

using namespace rfevent;
using namespace rfevent::testkit;

namespace {

// Closes the given standard descriptors for the scope, then puts the test's own back.
class ClosedStandardStreams {
  public:
    explicit ClosedStandardStreams(std::vector<int> which) : which_(std::move(which)) {
        for (int fd : which_) {
            saved_[fd] = ::fcntl(fd, F_DUPFD_CLOEXEC, 100);
            ::close(fd);
        }
    }
    ClosedStandardStreams(const ClosedStandardStreams&) = delete;
    ClosedStandardStreams& operator=(const ClosedStandardStreams&) = delete;
    ~ClosedStandardStreams() {
        for (int fd : which_) {
            ::dup2(saved_[fd], fd);
            ::close(saved_[fd]);
        }
    }

  private:
    std::vector<int> which_;
    int saved_[3] = {-1, -1, -1};
};

// What descriptor fd is ("" when it is closed).
std::string targetOf(int fd) {
    char link[PATH_MAX] = {};
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = ::readlink(path.c_str(), link, sizeof link - 1);
    return n > 0 ? std::string(link, static_cast<std::size_t>(n)) : std::string();
}

// Whether descriptor fd is something the plug-in opened: a socket, a pipe or a sandbox file.
bool pluginFile(int fd) {
    const std::string target = targetOf(fd);
    return target.rfind("socket:", 0) == 0 || target.rfind("pipe:", 0) == 0 ||
           target.find(sandboxRoot()) != std::string::npos;
}

// Logging to standard error, as a host without a log file has it, from the next line on.
class LogToStandardError {
  public:
    LogToStandardError() {
        const char* file = std::getenv("RFEVENT_LOG_FILE");
        saved_ = file != nullptr ? file : "";
        ::unsetenv("RFEVENT_LOG_FILE");
    }
    LogToStandardError(const LogToStandardError&) = delete;
    LogToStandardError& operator=(const LogToStandardError&) = delete;
    ~LogToStandardError() { ::setenv("RFEVENT_LOG_FILE", saved_.c_str(), 1); }

  private:
    std::string saved_;
};

TEST(StandardStreamsTest, WithStandardErrorClosedTheSseStreamGetsOnlyItsFrames) {
    HostSetup host;
    host.subscribeAll();
    SseReceiver receiver({fixedPath(FixedPath::SseFifo), SseReceiver::portFromEnvironment()});
    {
        LogToStandardError toStandardError;
        ClosedStandardStreams closed({STDERR_FILENO});
        HostSetup::sendAlert();
        const std::string report = hostReport(300);
        send_report_to_subscription(report.c_str());
        EXPECT_FALSE(pluginFile(STDERR_FILENO)) << targetOf(STDERR_FILENO);
        // The host writes to its standard error too.
        (void)!::write(STDERR_FILENO, "host line\n", 10);
    }
    ASSERT_TRUE(host.server->waitForRequests(2, kEventDeadline));
    receiver.stop();
    const std::vector<std::string> frames = receiver.fifoMessages();
    ASSERT_EQ(frames.size(), 1u) << receiver.fifoBytes();
    EXPECT_EQ(frames[0].rfind("EventFormatType eq Event=<id:", 0), 0u) << frames[0];
    EXPECT_EQ(receiver.fifoBytes().find("host line"), std::string::npos);
}

TEST(StandardStreamsTest, WithAllThreeClosedNoDescriptorOfThePluginIsAStandardStream) {
    HttpsServerOptions options = HostSetup::defaultOptions();
    options.holdAnswers = true;
    HostSetup host(options);
    host.subscribeAll();
    SseReceiver receiver({fixedPath(FixedPath::SseFifo), SseReceiver::portFromEnvironment()});
    std::string during[3];
    std::string after[3];
    {
        ClosedStandardStreams closed({STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO});
        // A log file opened anew while the streams are closed.
        const std::string logFile = rooted("/closed-streams.log");
        const char* saved = std::getenv("RFEVENT_LOG_FILE");
        const std::string savedLog = saved != nullptr ? saved : "";
        ::setenv("RFEVENT_LOG_FILE", logFile.c_str(), 1);
        std::thread alert([] { HostSetup::sendAlert(); });
        const bool inFlight = host.server->waitForRequests(1, kEventDeadline);
        for (int fd = 0; fd < 3; ++fd) {
            during[fd] = pluginFile(fd) ? targetOf(fd) : "";
        }
        host.server->releaseAnswers();
        alert.join();
        const std::string report = hostReport(300);
        send_report_to_subscription(report.c_str());
        for (int fd = 0; fd < 3; ++fd) {
            after[fd] = pluginFile(fd) ? targetOf(fd) : "";
        }
        ::setenv("RFEVENT_LOG_FILE", savedLog.c_str(), 1);
        ASSERT_TRUE(inFlight);
    }
    for (int fd = 0; fd < 3; ++fd) {
        EXPECT_EQ(during[fd], "") << "descriptor " << fd << " during the POST";
        EXPECT_EQ(after[fd], "") << "descriptor " << fd << " afterwards";
    }
    ASSERT_TRUE(host.server->waitForRequests(2, kEventDeadline));
    receiver.stop();
    const std::vector<std::string> frames = receiver.fifoMessages();
    ASSERT_EQ(frames.size(), 1u) << receiver.fifoBytes();
    EXPECT_EQ(frames[0].rfind("EventFormatType eq Event=<id:", 0), 0u) << frames[0];
}

} // namespace
