// An SSE stream server that stops accepting connections must not hold the plug-in's callers,
// the alert entry among them, for more than a few seconds.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "base/paths.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "sse/transport.h"

using namespace rfevent;
using rfevent::testkit::LogCapture;
using rfevent::testkit::SseReceiver;

namespace {

// Listens on the SSE port but never accepts; its accept queue is filled by connections of its
// own, so the kernel drops every further connection attempt instead of answering it.
class FullAcceptQueue {
  public:
    explicit FullAcceptQueue(int port) {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        int yes = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ok_ = bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              listen(listener_, 0) == 0;
        for (int i = 0; ok_ && i < 4; ++i) {
            int client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
            fillers_.push_back(client);
        }
    }
    ~FullAcceptQueue() {
        for (int fd : fillers_) {
            close(fd);
        }
        close(listener_);
    }
    bool ok() const { return ok_; }

  private:
    int listener_ = -1;
    bool ok_ = false;
    std::vector<int> fillers_;
};

class UnresponsiveServerTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }
};

std::string reportMessage(std::size_t bodySize) {
    return "EventFormatType eq MetricReport=<id:1>:" + std::string(bodySize, 'r');
}

using Clock = std::chrono::steady_clock;

TEST_F(UnresponsiveServerTest, ALongMessageGivesUpAfterTheFirstPieceThatIsNotAccepted) {
    FullAcceptQueue server(SseReceiver::portFromEnvironment());
    ASSERT_TRUE(server.ok());
    LogCapture log;
    const auto start = Clock::now();
    EXPECT_EQ(sse_chunk_send(reportMessage(64 * 1024).c_str()), 0);
    // 17 pieces and the end marker, each waiting for the kernel's connect retries, took
    // minutes; one bounded connect is all that is tried now.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(log.count(2, "client: connect failure"), 1) << log.dump();
    EXPECT_EQ(log.count(2, "rest of the message dropped"), 1);
    EXPECT_EQ(log.count(2, "buf length"), 0);
}

TEST_F(UnresponsiveServerTest, AShortMessageSkipsItsEndMarker) {
    FullAcceptQueue server(SseReceiver::portFromEnvironment());
    ASSERT_TRUE(server.ok());
    LogCapture log;
    sendReportMessage(reportMessage(100));
    EXPECT_EQ(log.count(2, "client: connect failure"), 1) << log.dump();
    EXPECT_EQ(log.count(2, "rest of the message dropped"), 1);
}

TEST_F(UnresponsiveServerTest, AnAlertFrameWaitsAtMostForOneBoundedConnect) {
    FullAcceptQueue server(SseReceiver::portFromEnvironment());
    ASSERT_TRUE(server.ok());
    SseReceiver fifo({rfevent::fixedPath(FixedPath::SseFifo), -1});
    LogCapture log;
    auto report = std::async(std::launch::async,
                             [] { return sse_chunk_send(reportMessage(1024 * 1024).c_str()); });
    // The alert frame queues on the send mutex behind the report's first connect.
    ASSERT_TRUE(
        rfevent::testkit::waitUntil([&] { return log.countAny("Entering send_to_sock_sse") > 0; }));
    const auto start = Clock::now();
    EXPECT_EQ(send_to_sse("EventFormatType eq Event=<id:1>:{}<END>"), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(report.get(), 0);
    EXPECT_TRUE(fifo.waitForFifoMessages(1, std::chrono::seconds(20)));
}

TEST_F(UnresponsiveServerTest, AServerThatIsBackIsServedAgain) {
    {
        FullAcceptQueue server(SseReceiver::portFromEnvironment());
        ASSERT_TRUE(server.ok());
        sendReportMessage(reportMessage(100));
    }
    SseReceiver receiver({"", SseReceiver::portFromEnvironment()});
    sendReportMessage(reportMessage(100));
    EXPECT_TRUE(receiver.waitForPieces(2, std::chrono::seconds(20)));
}

} // namespace
