// The SSE stand-in: NUL-separated FIFO messages, one piece per TCP
// connection, and the reassembly of chunked socket messages.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"

namespace rfevent::testkit {
namespace {

using namespace std::chrono_literals;

std::string fifoPath() {
    return rooted("/var/run/lumenrest/SSE_FIFO");
}

// Writes like the product does: non-blocking open, one write, close.
bool writeToFifo(const std::string& text) {
    const int fd = ::open(fifoPath().c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

// One connection carrying `data`, written in slices to show that a piece is
// everything until the close, not one read.
void sendPiece(int port, const std::string& data) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (std::size_t at = 0; at < data.size(); at += 1000) {
        const std::string slice = data.substr(at, 1000);
        ASSERT_EQ(::send(fd, slice.data(), slice.size(), 0), static_cast<ssize_t>(slice.size()));
    }
    ::close(fd);
}

TEST(SseReceiverTest, SplitsFifoMessagesOnNul) {
    SseReceiver receiver({fifoPath(), -1});
    struct stat info {};
    ASSERT_EQ(::stat(fifoPath().c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0660u & ~mask);

    ASSERT_TRUE(writeToFifo(std::string("first\0", 6)));
    ASSERT_TRUE(writeToFifo(std::string("data: {\"a\":1}\0", 14)));
    ASSERT_TRUE(writeToFifo("partial"));
    ASSERT_TRUE(receiver.waitForFifoMessages(2, kEventDeadline));
    EXPECT_EQ(receiver.fifoMessages(), (std::vector<std::string>{"first", "data: {\"a\":1}"}));
    receiver.stop();
    EXPECT_EQ(receiver.fifoBytes(), std::string("first\0data: {\"a\":1}\0partial", 27));
}

TEST(SseReceiverTest, UsesAnExistingFifo) {
    ASSERT_EQ(::mkfifo(fifoPath().c_str(), 0600), 0);
    SseReceiver receiver({fifoPath(), -1});
    ASSERT_TRUE(writeToFifo(std::string("x\0", 2)));
    EXPECT_TRUE(receiver.waitForFifoMessages(1, kEventDeadline));
}

TEST(SseReceiverTest, WritersFindNoReaderAfterStop) {
    {
        SseReceiver receiver({fifoPath(), -1});
        EXPECT_TRUE(writeToFifo(std::string("a\0", 2)));
    }
    errno = 0;
    EXPECT_EQ(::open(fifoPath().c_str(), O_WRONLY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST(SseReceiverTest, RecordsOnePiecePerConnectionInOrder) {
    SseReceiver receiver({"", 0});
    ASSERT_GT(receiver.port(), 0);
    const std::string big(10000, 'q');
    sendPiece(receiver.port(), "one");
    sendPiece(receiver.port(), big);
    sendPiece(receiver.port(), "three<END>");
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(), (std::vector<std::string>{"one", big, "three<END>"}));
    receiver.clear();
    EXPECT_TRUE(receiver.pieces().empty());
}

TEST(SseReceiverTest, ListensOnThePortFromTheEnvironment) {
    const int port = SseReceiver::portFromEnvironment();
    EXPECT_EQ(port, std::atoi(std::getenv("RFEVENT_SSE_PORT")));
    SseReceiver receiver({"", port});
    EXPECT_EQ(receiver.port(), port);
    sendPiece(port, "F=<id:1>:{}");
    ASSERT_TRUE(receiver.waitForPieces(1, kEventDeadline));
    EXPECT_EQ(receiver.messages().at(0).key, "F=");
}

TEST(SseReceiverTest, MarkerArrivesAfterEveryPieceSentBeforeIt) {
    SseReceiver receiver({"", 0});
    sendPiece(receiver.port(), "one");
    sendPiece(receiver.port(), "two");
    ASSERT_TRUE(receiver.sendMarker(kEventDeadline));
    EXPECT_EQ(receiver.pieces(), (std::vector<std::string>{"one", "two", SseReceiver::kMarker}));
    receiver.clear();
    ASSERT_TRUE(receiver.sendMarker(kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

TEST(SseReceiverTest, MarkerNeedsTheSocketChannel) {
    SseReceiver receiver({fifoPath(), -1});
    EXPECT_THROW(receiver.sendMarker(kEventDeadline), std::runtime_error);
}

TEST(SseReceiverTest, StopsWhileAClientKeepsItsConnectionOpen) {
    SseReceiver receiver({fifoPath(), 0});
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(receiver.port()));
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::send(fd, "abc", 3, 0), 3);
    const auto start = std::chrono::steady_clock::now();
    receiver.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    ::close(fd);
}

TEST(SsePrefixTest, IsTheTextBeforeTheFirstIdMarker) {
    EXPECT_EQ(ssePrefix("EventFormatType eq MetricReport=<id:5>:{}"),
              "EventFormatType eq MetricReport=");
    EXPECT_EQ(ssePrefix("a=<id:1>:<id:2>"), "a=");
    EXPECT_EQ(ssePrefix("no marker here"), "no marker here");
    EXPECT_EQ(ssePrefix("<id:1>:x"), "");
}

TEST(ReassembleTest, SinglePieceWithEndMarker) {
    const auto messages = reassembleSsePieces({"K=<id:1>:{\"a\":1}", "K=<END>"});
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].key, "K=");
    EXPECT_EQ(messages[0].text, "K=<id:1>:{\"a\":1}");
    EXPECT_TRUE(messages[0].complete);
}

TEST(ReassembleTest, InterleavedChunksOfTwoMessages) {
    const std::string a = "A=<id:1>:" + std::string(4087, 'a') + "tail-a";
    const std::string b = "Bee eq x=<id:7>:" + std::string(4080, 'b') + "tail-b";
    ASSERT_EQ(a.size(), 4102u);
    ASSERT_EQ(b.size(), 4102u);
    const auto messages =
        reassembleSsePieces({a.substr(0, 4096), b.substr(0, 4096), "Bee eq x=" + b.substr(4096),
                             "A=" + a.substr(4096), "A=<END>", "Bee eq x=<END>"});
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].key, "A=");
    EXPECT_EQ(messages[0].text, a);
    EXPECT_TRUE(messages[0].complete);
    EXPECT_EQ(messages[1].key, "Bee eq x=");
    EXPECT_EQ(messages[1].text, b);
    EXPECT_TRUE(messages[1].complete);
}

TEST(ReassembleTest, LongerKeyWinsWhenKeysShareAStart) {
    const std::string a = "A=<id:1>:" + std::string(4096 - 9, 'a');
    const std::string ab = "A=B=<id:2>:" + std::string(4096 - 11, 'b');
    const auto messages =
        reassembleSsePieces({a, ab, "A=B=more", "A=rest", "A=<END>", "A=B=<END>"});
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, a + "rest");
    EXPECT_EQ(messages[1].text, ab + "more");
    EXPECT_TRUE(messages[0].complete && messages[1].complete);
}

TEST(ReassembleTest, ShortMessagesWithKeysSharingAStartStaySeparate) {
    const auto messages =
        reassembleSsePieces({"A=<id:1>:x", "A=B=<id:2>:y", "A=<END>", "A=B=<END>"});
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, "A=<id:1>:x");
    EXPECT_EQ(messages[1].key, "A=B=");
    EXPECT_EQ(messages[1].text, "A=B=<id:2>:y");
    EXPECT_TRUE(messages[0].complete && messages[1].complete);
}

TEST(ReassembleTest, ExactMultipleOfThePieceSizeHasAPrefixOnlyPiece) {
    const std::string text = "P=<id:3>:" + std::string(4096 - 9, 'z');
    ASSERT_EQ(text.size(), 4096u);
    const auto messages = reassembleSsePieces({text, "P=", "P=<END>"});
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, text);
    EXPECT_TRUE(messages[0].complete);
}

TEST(ReassembleTest, EndMarkerWithoutDataIsAnEmptyCompleteMessage) {
    const auto messages = reassembleSsePieces({"F eq 1=<END>"});
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].key, "F eq 1=");
    EXPECT_EQ(messages[0].text, "");
    EXPECT_TRUE(messages[0].complete);
}

TEST(ReassembleTest, MessageWithoutIdMarkerIsItsOwnKey) {
    const auto messages = reassembleSsePieces({"plain text", "plain text<END>"});
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].key, "plain text");
    EXPECT_EQ(messages[0].text, "plain text");
    EXPECT_TRUE(messages[0].complete);
}

TEST(ReassembleTest, MissingEndMarkerLeavesTheMessageIncomplete) {
    const auto messages = reassembleSsePieces({"K=<id:1>:a", "K=<id:2>:b", "K=<END>"});
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, "K=<id:1>:a");
    EXPECT_FALSE(messages[0].complete);
    EXPECT_EQ(messages[1].text, "K=<id:2>:b");
    EXPECT_TRUE(messages[1].complete);
}

TEST(ReassembleTest, NoPiecesNoMessages) {
    EXPECT_TRUE(reassembleSsePieces({}).empty());
}

} // namespace
} // namespace rfevent::testkit
