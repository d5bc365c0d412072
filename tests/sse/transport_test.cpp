// The SSE FIFO writer, the per-piece socket sender and the chunking of long report messages,
// against the SSE stand-in on the real FIFO and the real loopback port.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "sse/transport.h"
#include "sse/transport_internal.h"

using namespace rfevent;

namespace {
// While set, every send() of this process first waits until the peer has reset the connection
// and takes the reset's error off the socket, so the send itself meets a connection that is
// gone (EPIPE), which raises SIGPIPE unless the sender asked for none. The order no longer
// depends on which thread the machine runs first.
std::atomic<bool> g_sendsMeetAClosedConnection{false};
} // namespace

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    if (g_sendsMeetAClosedConnection.load()) {
        pollfd wait = {fd, 0, 0}; // only POLLERR and POLLHUP: the peer's reset
        poll(&wait, 1, 30000);
        int pendingError = 0;
        socklen_t size = sizeof pendingError;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &pendingError, &size);
    }
    return syscall(SYS_sendto, fd, data, length, flags, nullptr, 0);
}

namespace {

using namespace std::chrono_literals;
using rfevent::testkit::kEventDeadline;
using rfevent::testkit::LogCapture;
using rfevent::testkit::SseReceiver;

std::string fifoPath() {
    return rfevent::fixedPath(rfevent::FixedPath::SseFifo);
}

// A report message with the given key whose total length is exactly `length`.
std::string reportMessage(const std::string& key, std::size_t length) {
    std::string text = key + "=<id:7>:";
    std::string body;
    for (std::size_t i = 0; text.size() + body.size() < length; ++i) {
        body.push_back(static_cast<char>('a' + i % 26));
    }
    return text + body;
}

class SseTransportTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }

    static SseReceiver socketReceiver() {
        return SseReceiver({"", SseReceiver::portFromEnvironment()});
    }
};

TEST_F(SseTransportTest, FifoWriteCarriesTheTerminatingNul) {
    SseReceiver receiver({fifoPath(), -1});
    LogCapture log;
    EXPECT_EQ(send_to_sse("0123456789"), 0);
    receiver.stop();
    EXPECT_EQ(receiver.fifoBytes(), std::string("0123456789\0", 11));
    EXPECT_TRUE(log.contains(5, "Write FIFO"));
}

TEST_F(SseTransportTest, FifoMessagesStaySeparatedByTheirNul) {
    SseReceiver receiver({fifoPath(), -1});
    EXPECT_EQ(send_to_sse("first"), 0);
    EXPECT_EQ(send_to_sse("second"), 0);
    ASSERT_TRUE(receiver.waitForFifoMessages(2, kEventDeadline));
    EXPECT_EQ(receiver.fifoMessages(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(SseTransportTest, FifoWithoutReaderFailsAtOnce) {
    ASSERT_EQ(::mkfifo(fifoPath().c_str(), 0660), 0);
    LogCapture log;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(send_to_sse("nobody listens"), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(log.count(2, "SSE FIFO Open Error No such device or address"), 1) << log.dump();
    EXPECT_EQ(sse_fifo_fd, -1);
}

TEST_F(SseTransportTest, MissingFifoIsNotCreated) {
    LogCapture log;
    EXPECT_EQ(send_to_sse("x"), 1);
    EXPECT_TRUE(log.contains(2, "SSE FIFO Open Error No such file or directory"));
    EXPECT_FALSE(rfevent::testkit::fileExists(fifoPath()));
}

TEST_F(SseTransportTest, SocketPieceHasNoNulAndIsLogged) {
    SseReceiver receiver = socketReceiver();
    LogCapture log;
    EXPECT_EQ(send_to_sock_sse("hello piece"), 0);
    ASSERT_TRUE(receiver.waitForPieces(1, kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{"hello piece"});
    EXPECT_EQ(log.count(4, "]Entering send_to_sock_sse Function"), 1);
    EXPECT_EQ(log.count(5, "client: connecting to 127.0.0.1"), 1) << log.dump();
    // The length line is logged at the error level on every send, on purpose.
    EXPECT_EQ(log.count(2, "buf length: 11"), 1);
    EXPECT_EQ(log.count(2, "numbytes 11"), 1);
    EXPECT_EQ(sse_sock_fd, -1);
}

// A piece's lines come in the order of its steps, one piece after the other, whenever they
// are written.
TEST_F(SseTransportTest, EachPieceLogsItsStepsInOrder) {
    SseReceiver receiver = socketReceiver();
    LogCapture log;
    EXPECT_EQ(send_to_sock_sse("one"), 0);
    EXPECT_EQ(send_to_sock_sse("three"), 0);
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    std::vector<std::string> steps;
    for (const std::string& line : log.lines()) {
        for (const char* step : {"client: connecting to 127.0.0.1", "buf length: ", "numbytes "}) {
            const std::size_t at = line.find(step);
            if (at != std::string::npos) {
                steps.push_back(line.substr(at));
            }
        }
    }
    EXPECT_EQ(steps, (std::vector<std::string>{"client: connecting to 127.0.0.1", "buf length: 3",
                                               "numbytes 3", "client: connecting to 127.0.0.1",
                                               "buf length: 5", "numbytes 5"}))
        << log.dump();
}

// The stream server's address is resolved once and kept; every piece still says where it went.
TEST_F(SseTransportTest, EveryPieceOfALongMessageLogsItsPeerAndLength) {
    SseReceiver receiver = socketReceiver();
    LogCapture log;
    EXPECT_EQ(send_to_sock_sse("first"), 0);
    EXPECT_EQ(sse_chunk_send(reportMessage("K", 3 * 4096 + 10).c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(6, kEventDeadline));
    EXPECT_EQ(log.count(5, "client: connecting to 127.0.0.1"), 6) << log.dump();
    EXPECT_EQ(log.count(2, "buf length: "), 6);
    EXPECT_EQ(log.count(2, "numbytes "), 6);
    EXPECT_EQ(log.countAny("getaddrinfo"), 0);
}

TEST_F(SseTransportTest, NothingListeningLogsEveryPieceAndStillReturnsZero) {
    LogCapture log;
    EXPECT_EQ(send_to_sock_sse("lost"), 0);
    EXPECT_EQ(log.count(2, "client: connect failure errorno:111 stderr:Connection refused"), 1)
        << log.dump();
    log.clear();
    EXPECT_EQ(sse_chunk_send(reportMessage("K", 5000).c_str()), 0);
    EXPECT_EQ(log.count(2, "client: connect failure"), 3) << log.dump();
    EXPECT_EQ(log.countAny("buf length"), 0);
}

TEST_F(SseTransportTest, ShortMessageThroughChunkingIsOnePiecePlusEndMarker) {
    SseReceiver receiver = socketReceiver();
    const std::string message = reportMessage("Short", 100);
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(receiver.pieces(), (std::vector<std::string>{message, "Short=<END>"}));
}

TEST_F(SseTransportTest, MessageOf4096BytesGetsTheExtraPrefixOnlyPiece) {
    SseReceiver receiver = socketReceiver();
    const std::string message = reportMessage("Key", 4096);
    ASSERT_EQ(message.size(), 4096u);
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(), (std::vector<std::string>{message, "Key=", "Key=<END>"}));
}

TEST_F(SseTransportTest, MessageOf4097BytesIsTwoPiecesPlusEndMarker) {
    SseReceiver receiver = socketReceiver();
    const std::string message = reportMessage("Key", 4097);
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{message.substr(0, 4096), "Key=" + message.substr(4096),
                                        "Key=<END>"}));
}

TEST_F(SseTransportTest, MessageOf5000BytesWith33BytePrefix) {
    SseReceiver receiver = socketReceiver();
    const std::string key(32, 'P'); // key plus "=" is the 33-byte prefix
    const std::string prefix = key + "=";
    const std::string message = reportMessage(key, 5000);
    ASSERT_EQ(prefix.size(), 33u);
    LogCapture log;
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{message.substr(0, 4096), prefix + message.substr(4096),
                                        prefix + "<END>"}));
    EXPECT_EQ(log.count(4, "]str:" + prefix + message.substr(4096)), 1);
    EXPECT_EQ(log.count(2, "buf length: 937"), 1); // 33 + 904
}

TEST_F(SseTransportTest, ExactMultipleOf4096EndsWithPrefixOnlyPiece) {
    SseReceiver receiver = socketReceiver();
    const std::string message = reportMessage("Two", 8192);
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(4, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{message.substr(0, 4096), "Two=" + message.substr(4096),
                                        "Two=", "Two=<END>"}));
    auto messages = receiver.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, message);
    EXPECT_TRUE(messages[0].complete);
}

TEST_F(SseTransportTest, MessageWithoutIdMarkerUsesItselfAsPrefix) {
    SseReceiver receiver = socketReceiver();
    const std::string message(4100, 'z');
    EXPECT_EQ(sse_chunk_send(message.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{message.substr(0, 4096), message + message.substr(4096),
                                        message + "<END>"}));
}

TEST_F(SseTransportTest, TwoThreadsSendingLongReportsStayAttributable) {
    SseReceiver receiver = socketReceiver();
    const std::string first = reportMessage("EventFormatType eq MetricReport", 20000);
    const std::string second = reportMessage("MetricReportDefinition eq '/x'", 23000);
    std::thread a([&] { sse_chunk_send(first.c_str()); });
    std::thread b([&] { sse_chunk_send(second.c_str()); });
    a.join();
    b.join();
    // 20000 bytes: 5 pieces + end marker; 23000 bytes: 6 pieces + end marker.
    ASSERT_TRUE(receiver.waitForPieces(13, kEventDeadline));
    auto messages = receiver.messages();
    ASSERT_EQ(messages.size(), 2u);
    for (const auto& message : messages) {
        EXPECT_TRUE(message.complete);
        if (message.key == "EventFormatType eq MetricReport=") {
            EXPECT_EQ(message.text, first);
        } else {
            EXPECT_EQ(message.key, "MetricReportDefinition eq '/x'=");
            EXPECT_EQ(message.text, second);
        }
    }
    for (const auto& piece : receiver.pieces()) {
        EXPECT_LE(piece.size(), 4096u + 32u);
        EXPECT_TRUE(piece.rfind("EventFormatType eq MetricReport=", 0) == 0 ||
                    piece.rfind("MetricReportDefinition eq '/x'=", 0) == 0);
    }
}

// A peer that answers every connection with a half-close and then a reset, so that a send
// on the product's side finds the connection gone.
class ResettingPeer {
  public:
    explicit ResettingPeer(int port) {
        listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int on = 1;
        ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listenFd_, 16) != 0) {
            throw std::runtime_error("cannot listen");
        }
        thread_ = std::thread([this] { run(); });
    }
    ~ResettingPeer() {
        stop_ = true;
        ::shutdown(listenFd_, SHUT_RDWR);
        thread_.join();
        ::close(listenFd_);
    }

  private:
    void run() {
        while (!stop_) {
            int fd = ::accept(listenFd_, nullptr, nullptr);
            if (fd < 0) {
                return;
            }
            ::shutdown(fd, SHUT_WR);
            linger reset{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            ::close(fd);
        }
    }
    int listenFd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(SseTransportTest, PeerThatClosedDoesNotKillTheProcess) {
    ResettingPeer peer(SseReceiver::portFromEnvironment());
    LogCapture log;
    const std::string message = reportMessage("Gone", 3000);
    g_sendsMeetAClosedConnection = true;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(send_to_sock_sse(message.c_str()), 0);
    }
    g_sendsMeetAClosedConnection = false;
    // Still here: each send found the connection gone, and none raised SIGPIPE.
    EXPECT_EQ(log.count(2, "send error"), 3) << log.dump();
    EXPECT_EQ(log.count(2, "buf length: 3000"), 3);
}

} // namespace
