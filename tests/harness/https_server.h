// In-process HTTPS/1.1 event destination for the delivery tests.
//
// Listens on 127.0.0.1 (ephemeral port) with TLS from the test PKI, can
// require and verify a client certificate (mutual TLS), records every request
// it receives, and answers each one with a configurable status after a
// configurable delay, or holds every answer back until the test releases them.
// It can also stand for a destination that fails at once, by closing every
// connection as soon as it is accepted. One thread accepts; every connection gets its own
// thread (at most kMaxLiveConnections at a time), so many parallel clients
// are served at once and a slow answer on one connection holds up no other.
// Every connection carries one request: the answer says "Connection: close".
// Clients may resume their TLS sessions (tickets, and session ids for TLS 1.2), as ordinary
// servers allow; each recorded request says whether its handshake was a resumption.
#ifndef RFEVENT_TESTS_HTTPS_SERVER_H
#define RFEVENT_TESTS_HTTPS_SERVER_H

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "harness/certs.h"

namespace rfevent::testkit {

struct HttpsServerOptions {
    bool requireClientCert =
        true;         // handshake fails without a client certificate signed by the test CA
    int status = 200; // status of every answer (0: none); see HttpsServer::setStatus
    int delayMs = 0;  // pause between reading a request and answering it
    std::size_t responseBodyBytes = 0; // the answer's body: this many bytes of 'x'
    // Record each request but answer none until releaseAnswers() (or stop()): shows that
    // requests are in flight at the same time without betting on how long a handshake takes.
    bool holdAnswers = false;
    // False: no tickets and no session cache, so every handshake is a full one.
    bool resumption = true;
    int maxTlsVersion = 0; // e.g. TLS1_2_VERSION; 0: the library's highest
    int port = 0;          // 0: an ephemeral port; else this one (a restarted destination)
    // Runs on the serving thread once a request is recorded and before it is answered, with
    // the number of requests recorded so far: a test acts at that exact point of a delivery.
    std::function<void(std::size_t)> afterRecord;
};

// One received request, exactly as it arrived.
struct RecordedRequest {
    std::string method;  // "POST"
    std::string target;  // request target, e.g. "/events?x=1"
    std::string version; // "HTTP/1.1"
    // Header fields in arrival order. The name is the exact bytes before the
    // first ':'; the value is the bytes after it with surrounding blanks
    // (space, tab) removed.
    std::vector<std::pair<std::string, std::string>> headers;
    // The same fields as whole raw lines without the CRLF, e.g. "X-Auth:abc";
    // headerLines[i] belongs to headers[i].
    std::vector<std::string> headerLines;
    std::string body; // exact bytes, Content-Length of them
    bool clientCertPresented = false;
    bool clientCertVerified = false; // presented and verified against the test CA
    std::string clientCn;            // subject CN of the client certificate, if any
    bool sessionResumed = false;     // the handshake resumed an earlier session
    std::chrono::steady_clock::time_point receivedAt; // when the body was complete

    // Value of the first header whose name matches case-insensitively, or ""
    // when there is none.
    std::string header(const std::string& name) const;
    bool hasHeader(const std::string& name) const;
    // True when one raw header line equals `line` byte for byte.
    bool hasHeaderLine(const std::string& line) const;
};

class HttpsServer {
  public:
    static constexpr int kMaxLiveConnections = 64;

    // Starts listening and serving at once. Throws std::runtime_error when
    // the TLS context or the listening socket cannot be set up.
    explicit HttpsServer(const TestPki& pki, const HttpsServerOptions& options = {});
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    // Closes the listener, interrupts open connections (including delayed
    // answers) and joins every thread. Idempotent; the destructor calls it.
    void stop();

    int port() const { return port_; }
    // "https://127.0.0.1:<port><path>"
    std::string url(const std::string& path = "/") const;

    // Take effect for requests whose body completes after the call. Status 0 answers nothing:
    // the connection is closed once the request is in, and the client fails at once.
    void setStatus(int status) { status_.store(status, std::memory_order_relaxed); }
    void setDelayMs(int delayMs) { delayMs_.store(delayMs, std::memory_order_relaxed); }
    // While on, every new connection is closed as soon as it is accepted, before the TLS
    // handshake: clients fail at once with a transport error, as with a destination that went
    // away, and nothing is recorded. Takes effect for connections accepted after the call.
    void setDropConnections(bool drop) { drop_.store(drop, std::memory_order_relaxed); }
    // Lets every held answer go (see HttpsServerOptions::holdAnswers), now and from then on.
    void releaseAnswers();

    std::vector<RecordedRequest> requests() const; // snapshot, arrival order
    std::size_t requestCount() const;
    // Waits until at least `count` requests were recorded.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;
    // Forgets recorded requests and resets the counters below.
    void clear();

    // Connections whose TLS handshake failed (no or bad client certificate,
    // client rejected our certificate, ...). These are not requests.
    int handshakeFailures() const { return handshakeFailures_.load(std::memory_order_relaxed); }
    // Every accepted TCP connection, dropped ones included.
    int connectionsAccepted() const { return connectionsAccepted_.load(std::memory_order_relaxed); }
    // Connections closed unserved while setDropConnections(true) was in effect.
    int connectionsDropped() const { return connectionsDropped_.load(std::memory_order_relaxed); }
    // Most connections that were being served at the same moment.
    int peakLiveConnections() const { return peakLive_.load(std::memory_order_relaxed); }

    // A port on 127.0.0.1 where nothing listens (bound once, then closed), to
    // stand for an absent destination.
    static int closedLoopbackPort();

  private:
    struct Connection {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void setUpTls(const TestPki& pki);
    void warmCertificateCaches();
    void setUpListener();
    void releaseResources();
    void acceptLoop();
    void joinFinished(bool all);
    void serveConnection(int fd);
    std::size_t record(RecordedRequest request); // how many are recorded now
    bool waitIo(int fd, short events, std::chrono::steady_clock::time_point deadline) const;
    bool pause(int delayMs) const;
    bool awaitRelease(std::chrono::steady_clock::time_point deadline) const;
    template <typename Op>
    int driveSsl(SSL* ssl, int fd, std::chrono::steady_clock::time_point deadline, Op op) const;
    bool readRequest(SSL* ssl, int fd, std::chrono::steady_clock::time_point deadline,
                     RecordedRequest& out);
    bool writeAll(SSL* ssl, int fd, std::chrono::steady_clock::time_point deadline,
                  const std::string& data) const;

    HttpsServerOptions options_;
    SSL_CTX* ctx_ = nullptr;
    int listenFd_ = -1;
    int wakeRead_ = -1; // readable once stop() was called
    int wakeWrite_ = -1;
    int releaseRead_ = -1; // readable once releaseAnswers() was called
    int releaseWrite_ = -1;
    int port_ = 0;
    bool stopped_ = false; // only touched by the owning thread

    std::atomic<int> status_;
    std::atomic<int> delayMs_;
    std::atomic<bool> drop_{false};
    std::atomic<bool> released_{false};
    std::atomic<int> handshakeFailures_{0};
    std::atomic<int> connectionsAccepted_{0};
    std::atomic<int> connectionsDropped_{0};
    std::atomic<int> live_{0};
    std::atomic<int> peakLive_{0};

    mutable std::mutex mutex_;
    mutable std::condition_variable recorded_;
    std::vector<RecordedRequest> requests_;
    bool accepting_ = false; // the accept thread has started

    std::thread acceptThread_;
    std::vector<Connection> connections_; // only touched by the accept thread, then by stop()
};

} // namespace rfevent::testkit

#endif
