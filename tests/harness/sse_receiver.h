// Stand-in for the SSE stream server that the product hands its messages to.
//
// Two channels, each optional:
//  - the FIFO: created if missing and held open for reading the whole time
//    (so the product's non-blocking writers find a reader); the product ends
//    every message with one NUL byte, which is how messages are split here;
//  - the TCP socket on 127.0.0.1: one piece per connection, all bytes until
//    the client closes, recorded in arrival order. Connections are served one
//    after the other, so arrival order is connection order.
// reassembleSsePieces() turns socket pieces back into whole messages.
#ifndef RFEVENT_TESTS_SSE_RECEIVER_H
#define RFEVENT_TESTS_SSE_RECEIVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace rfevent::testkit {

// One message rebuilt from socket pieces.
struct SseMessage {
    std::string key;       // the message prefix: its text before the first "<id:"
    std::string text;      // first piece + every later piece without its repeated prefix
    bool complete = false; // the end marker key + "<END>" was seen
};

// Text before the first "<id:", or the whole text when there is none.
std::string ssePrefix(const std::string& message);

// Rebuilds messages from pieces in arrival order; pieces of different
// messages may interleave. The product puts at most 4096 message bytes in a
// piece, so only a message whose last data piece was full can continue.
// Rules, in this order:
//  - "key<END>" ends the open message with that key; without one, and when
//    the key holds no "<id:", it is a message with no data: {key, "", true};
//  - a piece without "<id:" headed by the key of an open message that can
//    continue (longest key wins) is a continuation: the rest is appended. A
//    rest of "" is the extra piece sent for lengths that are an exact
//    multiple of 4096;
//  - anything else starts a new message keyed by ssePrefix(piece); an open
//    message with the same key is left incomplete.
// Limits: continuation data must not hold "<id:", and a message whose first
// piece lacks "<id:" is keyed by that whole piece, so only such messages of
// a single piece are rebuilt correctly.
std::vector<SseMessage> reassembleSsePieces(const std::vector<std::string>& pieces);

struct SseReceiverOptions {
    std::string fifoPath; // empty: no FIFO channel
    int port = -1;        // -1: no socket channel; 0: an ephemeral port
};

class SseReceiver {
  public:
    // Starts the requested channels. Throws std::runtime_error when the FIFO
    // cannot be created/opened or the port cannot be bound.
    explicit SseReceiver(SseReceiverOptions options);
    ~SseReceiver();
    SseReceiver(const SseReceiver&) = delete;
    SseReceiver& operator=(const SseReceiver&) = delete;

    // Reads what is left in the FIFO, stops both channels and joins their
    // threads. The FIFO file itself stays. Idempotent; the destructor calls it.
    void stop();

    // The port of RFEVENT_SSE_PORT, which the test main sets per process.
    // Throws std::runtime_error when it is unset or not a port number.
    static int portFromEnvironment();

    int port() const { return port_; } // bound port, -1 without a socket channel

    std::string fifoBytes() const;                 // everything read from the FIFO
    std::vector<std::string> fifoMessages() const; // NUL-terminated messages, NUL removed
    std::vector<std::string> pieces() const;       // socket pieces in arrival order
    std::vector<SseMessage> messages() const { return reassembleSsePieces(pieces()); }

    bool waitForFifoMessages(std::size_t count, std::chrono::milliseconds timeout) const;
    bool waitForPieces(std::size_t count, std::chrono::milliseconds timeout) const;

    // The piece sendMarker() sends.
    static constexpr const char* kMarker = "<test marker>";
    // Shows that nothing else is on its way to the socket: sends kMarker as one piece over a
    // connection of its own and waits until it has arrived. Connections are served in the
    // order they were made, so every piece whose connection was made before the call (every
    // piece the product sent before it) has arrived by then, and what is not in pieces() in
    // front of the marker was not sent. False when the marker did not arrive in time.
    bool sendMarker(std::chrono::milliseconds timeout) const;
    void clear(); // forgets everything recorded so far

  private:
    void openFifo(const std::string& path);
    void openListener(int port);
    void releaseResources();
    void fifoLoop();
    void drainFifo();
    void socketLoop();
    std::string readPiece(int fd) const;

    int fifoFd_ = -1;
    int fifoKeepAliveFd_ = -1; // our own writer, so the reader never sees a hang-up
    int listenFd_ = -1;
    int wakeRead_ = -1; // readable once stop() was called
    int wakeWrite_ = -1;
    int port_ = -1;
    bool stopped_ = false; // only touched by the owning thread

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::string fifoBytes_;
    std::vector<std::string> fifoMessages_;
    std::size_t fifoSplitAt_ = 0; // fifoBytes_ before this offset is split into messages
    std::vector<std::string> pieces_;

    std::thread fifoThread_;
    std::thread socketThread_;
};

} // namespace rfevent::testkit

#endif
