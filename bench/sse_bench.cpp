// SSE report messages through sse_chunk_send, against the same pieces sent by a plain
// connect/send/close loop to the same receiver.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/log.h"
#include "cases.h"
#include "harness/sse_receiver.h"
#include "platform/platform.h"
#include "sse/transport.h"

namespace rfevent::bench {

namespace {

using testkit::SseReceiver;

std::string reportMessage(std::size_t size) {
    std::string message = "EventFormatType eq MetricReport=<id:1207>:{\"Id\":\"PowerMetrics\",";
    message += "\"MetricValues\":\"";
    message.append(size - message.size() - 2, 'v');
    message += "\"}";
    return message;
}

// The two error-level lines every piece must write, as the plug-in words them: the same
// logger, level, module and format, under a function name and line of the same length, so
// each line costs the same formatting and the same bytes of log.
void logPiece(std::size_t length, ssize_t sent) {
    static const char kFunction[] = "sendOverFreshConnection";
    orvaprintf(kLogError, kLogModule, "[%s():%d]buf length: %d", kFunction, 171,
               static_cast<int>(length));
    orvaprintf(kLogError, kLogModule, "[%s():%d]numbytes %d", kFunction, 175,
               static_cast<int>(sent));
}

// One piece over a fresh connection, as short as it gets: no name resolution, and only the
// piece's two error-level lines once the connection is closed.
void sendPiece(const sockaddr_in& address, const std::string& piece) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ssize_t sent = -1;
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (sent = ::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL)) < 0) {
        throw std::runtime_error("floor SSE piece not sent");
    }
    ::close(fd);
    logPiece(piece.size(), sent);
}

void waitForAll(SseReceiver& receiver, std::size_t pieces) {
    if (!receiver.waitForPieces(pieces, std::chrono::seconds(30))) {
        throw std::runtime_error("SSE case: the receiver missed pieces");
    }
}

void runOne(const Context& context, Table& table, SseReceiver& receiver, std::size_t size,
            const char* label) {
    const std::string message = reportMessage(size);
    // The plug-in's own pieces, once, are what the floor sends.
    receiver.clear();
    sse_chunk_send(message.c_str());
    const std::size_t count = size / kSsePieceSize + 2;
    waitForAll(receiver, count);
    const std::vector<std::string> pieces = receiver.pieces();
    if (pieces.size() != count) {
        throw std::runtime_error("SSE case: unexpected piece count");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(receiver.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    const int perRound = size >= (1U << 20) ? 1 : size >= (1U << 16) ? 5 : 50;
    Comparison result = compareAlternating(
        [&] {
            receiver.clear();
            sse_chunk_send(message.c_str());
            waitForAll(receiver, count);
        },
        [&] {
            receiver.clear();
            for (const std::string& piece : pieces) {
                sendPiece(address, piece);
            }
            waitForAll(receiver, count);
        },
        context.schedule(15, perRound));
    table.add(
        {std::string("SSE report message of ") + label + " (" + std::to_string(count) + " pieces)",
         result.plugin, result.floor, Unit::Seconds, true, kProtocolBound});
}

} // namespace

void runSseCases(const Context& context, Table& table) {
    testkit::SseReceiverOptions options;
    options.port = SseReceiver::portFromEnvironment();
    SseReceiver receiver(options);
    runOne(context, table, receiver, 1024, "1 KiB");
    runOne(context, table, receiver, std::size_t{64} * 1024, "64 KiB");
    runOne(context, table, receiver, std::size_t{1024} * 1024, "1 MiB");
}

} // namespace rfevent::bench
