#include "harness/https_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace rfevent::testkit {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kConnectionDeadline = std::chrono::seconds(60); // whole life of one connection
constexpr std::size_t kMaxHeadBytes = 64 * 1024;
constexpr unsigned long long kMaxBodyBytes = 64ULL * 1024 * 1024;

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && ::strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

std::string trimBlanks(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

const char* reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 202:
        return "Accepted";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    case 504:
        return "Gateway Timeout";
    default:
        return "Status";
    }
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
    }
    fd = -1;
}

// OpenSSL writes with write(2); a peer that already hung up must not kill the
// test process with SIGPIPE. Only a default disposition is changed.
void ignoreSigpipe() {
    struct sigaction current {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
        ::signal(SIGPIPE, SIG_IGN);
    }
}

std::string commonName(X509* cert) {
    X509_NAME* name = X509_get_subject_name(cert);
    const int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0) {
        return "";
    }
    unsigned char* utf8 = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
    if (length < 0) {
        return "";
    }
    std::string cn(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return cn;
}

// Parses the request line and header lines (the head without its final
// empty line). Returns false when the request line is malformed.
bool parseHead(const std::string& head, RecordedRequest& out) {
    std::size_t lineStart = 0;
    bool first = true;
    while (lineStart <= head.size()) {
        std::size_t lineEnd = head.find("\r\n", lineStart);
        if (lineEnd == std::string::npos) {
            lineEnd = head.size();
        }
        const std::string line = head.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 2;
        if (first) {
            first = false;
            const auto sp1 = line.find(' ');
            const auto sp2 = sp1 == std::string::npos ? sp1 : line.find(' ', sp1 + 1);
            if (sp2 == std::string::npos) {
                return false;
            }
            out.method = line.substr(0, sp1);
            out.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
            out.version = line.substr(sp2 + 1);
            continue;
        }
        const auto colon = line.find(':');
        out.headerLines.push_back(line);
        if (colon == std::string::npos) {
            out.headers.emplace_back(line, "");
        } else {
            out.headers.emplace_back(line.substr(0, colon), trimBlanks(line.substr(colon + 1)));
        }
    }
    return !first;
}

// Content-Length as a number; false when it is present but not a plain
// decimal number within kMaxBodyBytes.
bool contentLength(const RecordedRequest& request, std::size_t& length) {
    length = 0;
    if (!request.hasHeader("Content-Length")) {
        return true;
    }
    const std::string text = request.header("Content-Length");
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 12)
        return false;
    const unsigned long long value = std::stoull(text);
    if (value > kMaxBodyBytes) {
        return false;
    }
    length = static_cast<std::size_t>(value);
    return true;
}

} // namespace

std::string RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (equalsIgnoreCase(key, name)) {
            return value;
        }
    }
    return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
    for (const auto& field : headers) {
        if (equalsIgnoreCase(field.first, name)) {
            return true;
        }
    }
    return false;
}

bool RecordedRequest::hasHeaderLine(const std::string& line) const {
    for (const auto& raw : headerLines) {
        if (raw == line) {
            return true;
        }
    }
    return false;
}

HttpsServer::HttpsServer(const TestPki& pki, const HttpsServerOptions& options)
    : options_(options), status_(options.status), delayMs_(options.delayMs) {
    ignoreSigpipe();
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC) != 0) {
        throw std::runtime_error("https server: pipe2 failed");
    }
    wakeRead_ = wake[0];
    wakeWrite_ = wake[1];
    int release[2];
    if (::pipe2(release, O_CLOEXEC) != 0) {
        releaseResources();
        throw std::runtime_error("https server: pipe2 failed");
    }
    releaseRead_ = release[0];
    releaseWrite_ = release[1];
    try {
        setUpTls(pki);
        setUpListener();
        acceptThread_ = std::thread([this] {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                accepting_ = true;
            }
            recorded_.notify_all();
            acceptLoop();
        });
        // The accept thread has started up before the server is handed out: a test that forks
        // right away must not copy a lock that thread's start-up holds into its child.
        std::unique_lock<std::mutex> lock(mutex_);
        recorded_.wait(lock, [this] { return accepting_; });
    } catch (...) {
        releaseResources();
        throw;
    }
}

HttpsServer::~HttpsServer() {
    stop();
}

void HttpsServer::setUpTls(const TestPki& pki) {
    ctx_ = SSL_CTX_new(TLS_server_method());
    if (ctx_ == nullptr) {
        throw std::runtime_error("https server: SSL_CTX_new failed");
    }
    if (SSL_CTX_use_certificate_chain_file(ctx_, pki.serverCert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx_, pki.serverKey.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx_) != 1 ||
        SSL_CTX_load_verify_locations(ctx_, pki.caCert.c_str(), nullptr) != 1) {
        ERR_clear_error();
        throw std::runtime_error("https server: cannot load server credentials from " + pki.dir);
    }
    // Tell clients which CA we accept client certificates from.
    if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(pki.caCert.c_str())) {
        SSL_CTX_set_client_CA_list(ctx_, names);
    }
    if (options_.requireClientCert) {
        SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    } else {
        // Ask for a certificate but accept anything; the verify result is
        // still recorded per request.
        SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    }
    if (options_.resumption) {
        // A server that asks for client certificates resumes only sessions of its own context.
        static const unsigned char kSessionContext[] = "rfevent-test-destination";
        SSL_CTX_set_session_id_context(ctx_, kSessionContext, sizeof kSessionContext - 1);
        SSL_CTX_sess_set_cache_size(ctx_, 1024); // TLS 1.2 session ids; tickets need no room
    } else {
        SSL_CTX_set_options(ctx_, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(ctx_, 0);
        SSL_CTX_set_session_cache_mode(ctx_, SSL_SESS_CACHE_OFF);
    }
    if (options_.maxTlsVersion != 0 &&
        SSL_CTX_set_max_proto_version(ctx_, options_.maxTlsVersion) != 1) {
        throw std::runtime_error("https server: unsupported highest TLS version");
    }
    warmCertificateCaches();
}

// OpenSSL fills a certificate's extension cache (key identifiers, purposes) on first use, under
// a lock that readers on other threads do not always take. Filling the caches of the shared
// certificates here, before any connection thread exists, keeps handshakes from writing to
// them concurrently.
void HttpsServer::warmCertificateCaches() {
    if (X509* own = SSL_CTX_get0_certificate(ctx_)) {
        X509_check_purpose(own, -1, 0);
    }
    X509_STORE* store = SSL_CTX_get_cert_store(ctx_);
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        if (X509* cert = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i))) {
            X509_check_purpose(cert, -1, 0);
        }
    }
}

void HttpsServer::setUpListener() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0) {
        throw std::runtime_error("https server: socket failed");
    }
    // A destination restarted on its old port must not wait for that port's closed connections.
    const int reuse = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(options_.port));
    socklen_t length = sizeof address;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error(std::string("https server: listen failed: ") +
                                 std::strerror(errno));
    }
    port_ = ntohs(address.sin_port);
}

void HttpsServer::releaseResources() {
    closeFd(listenFd_);
    closeFd(wakeRead_);
    closeFd(wakeWrite_);
    closeFd(releaseRead_);
    closeFd(releaseWrite_);
    SSL_CTX_free(ctx_);
    ctx_ = nullptr;
}

void HttpsServer::stop() {
    if (stopped_) {
        return;
    }
    stopped_ = true;
    const char byte = 1;
    // One byte in an otherwise empty pipe: cannot fail while we hold the read end.
    if (::write(wakeWrite_, &byte, 1) != 1) {
        std::abort();
    }
    if (acceptThread_.joinable()) {
        acceptThread_.join();
    }
    joinFinished(true);
    releaseResources();
}

void HttpsServer::releaseAnswers() {
    if (released_.exchange(true) || stopped_) {
        return;
    }
    const char byte = 1;
    // One byte in an otherwise empty pipe: cannot fail while we hold the read end.
    if (::write(releaseWrite_, &byte, 1) != 1) {
        std::abort();
    }
}

std::string HttpsServer::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<RecordedRequest> HttpsServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::size_t HttpsServer::requestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
}

bool HttpsServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return recorded_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

void HttpsServer::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.clear();
    handshakeFailures_.store(0, std::memory_order_relaxed);
    connectionsAccepted_.store(0, std::memory_order_relaxed);
    connectionsDropped_.store(0, std::memory_order_relaxed);
    peakLive_.store(0, std::memory_order_relaxed);
}

int HttpsServer::closedLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error("closedLoopbackPort: socket failed");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::close(fd);
    if (!ok) {
        throw std::runtime_error("closedLoopbackPort: bind failed");
    }
    return ntohs(address.sin_port);
}

// Accepts connections until stop(), one thread per connection. When
// kMaxLiveConnections are being served, further clients wait in the backlog.
void HttpsServer::acceptLoop() {
    for (;;) {
        joinFinished(false);
        const bool full = live_.load(std::memory_order_relaxed) >= kMaxLiveConnections;
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
        const int ready = ::poll(fds, full ? 1 : 2, full ? 10 : -1);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (full || ready <= 0 || (fds[1].revents & POLLIN) == 0) {
            continue;
        }

        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            continue; // EAGAIN or a client that gave up already
        }
        connectionsAccepted_.fetch_add(1, std::memory_order_relaxed);
        if (drop_.load(std::memory_order_relaxed)) {
            connectionsDropped_.fetch_add(1,
                                          std::memory_order_relaxed); // before the client sees it
            ::close(fd);
            continue;
        }
        const int nowLive = live_.fetch_add(1, std::memory_order_relaxed) + 1;
        int peak = peakLive_.load(std::memory_order_relaxed);
        while (nowLive > peak &&
               !peakLive_.compare_exchange_weak(peak, nowLive, std::memory_order_relaxed)) {
        }
        auto done = std::make_shared<std::atomic<bool>>(false);
        try {
            std::thread thread([this, fd, done] {
                serveConnection(fd);
                live_.fetch_sub(1, std::memory_order_relaxed);
                done->store(true, std::memory_order_release);
            });
            connections_.push_back({std::move(thread), done});
        } catch (const std::system_error&) {
            ::close(fd);
            live_.fetch_sub(1, std::memory_order_relaxed);
        }
    }
}

void HttpsServer::joinFinished(bool all) {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if (all || it->done->load(std::memory_order_acquire)) {
            it->thread.join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

// Waits until `fd` is ready for `events`. False on stop() or at the deadline.
bool HttpsServer::waitIo(int fd, short events, Clock::time_point deadline) const {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {fd, events, 0}};
        const int ready = ::poll(fds, 2, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || fds[0].revents != 0) {
            return false;
        }
        if (fds[1].revents != 0) {
            return true; // readiness, hang-up or error: the next call tells which
        }
    }
}

// Sleeps `delayMs`; false when stop() cut the sleep short.
bool HttpsServer::pause(int delayMs) const {
    const auto deadline = Clock::now() + std::chrono::milliseconds(delayMs);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return true;
        }
        pollfd wake{wakeRead_, POLLIN, 0};
        const int ready = ::poll(&wake, 1, static_cast<int>(left));
        if (ready > 0) {
            return false;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

// Waits until releaseAnswers() when answers are held; false on stop() or at the deadline.
bool HttpsServer::awaitRelease(Clock::time_point deadline) const {
    return !options_.holdAnswers || waitIo(releaseRead_, POLLIN, deadline);
}

// Repeats a non-blocking SSL call until it completes. Returns its positive
// result, 0 when the peer closed the TLS session, -1 on error or stop.
template <typename Op>
int HttpsServer::driveSsl(SSL* ssl, int fd, Clock::time_point deadline, Op op) const {
    for (;;) {
        ERR_clear_error();
        const int result = op();
        if (result > 0) {
            return result;
        }
        switch (SSL_get_error(ssl, result)) {
        case SSL_ERROR_WANT_READ:
            if (!waitIo(fd, POLLIN, deadline)) {
                return -1;
            }
            break;
        case SSL_ERROR_WANT_WRITE:
            if (!waitIo(fd, POLLOUT, deadline)) {
                return -1;
            }
            break;
        case SSL_ERROR_ZERO_RETURN:
            return 0;
        default:
            return -1;
        }
    }
}

bool HttpsServer::writeAll(SSL* ssl, int fd, Clock::time_point deadline,
                           const std::string& data) const {
    return driveSsl(ssl, fd, deadline,
                    [&] { return SSL_write(ssl, data.data(), static_cast<int>(data.size())); }) > 0;
}

// Reads head and body of one request. Sends "100 Continue" when the client
// waits for it before sending the body.
bool HttpsServer::readRequest(SSL* ssl, int fd, Clock::time_point deadline, RecordedRequest& out) {
    std::string data;
    char buffer[16384];
    auto readMore = [&] {
        const int n =
            driveSsl(ssl, fd, deadline, [&] { return SSL_read(ssl, buffer, sizeof buffer); });
        if (n > 0) {
            data.append(buffer, static_cast<std::size_t>(n));
        }
        return n > 0;
    };

    std::size_t headEnd;
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
        if (data.size() > kMaxHeadBytes || !readMore()) {
            return false;
        }
    }
    std::size_t length = 0;
    if (!parseHead(data.substr(0, headEnd), out) || !contentLength(out, length)) {
        return false;
    }

    const std::size_t bodyStart = headEnd + 4;
    if (data.size() - bodyStart < length &&
        equalsIgnoreCase(out.header("Expect"), "100-continue") &&
        !writeAll(ssl, fd, deadline, "HTTP/1.1 100 Continue\r\n\r\n")) {
        return false;
    }
    while (data.size() - bodyStart < length) {
        if (!readMore()) {
            return false;
        }
    }
    out.body = data.substr(bodyStart, length);
    out.receivedAt = Clock::now();
    return true;
}

std::size_t HttpsServer::record(RecordedRequest request) {
    std::size_t count = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(std::move(request));
        count = requests_.size();
    }
    recorded_.notify_all();
    return count;
}

// One connection: TLS handshake, one request, one answer, close.
void HttpsServer::serveConnection(int fd) {
    const auto deadline = Clock::now() + kConnectionDeadline;
    SSL* ssl = SSL_new(ctx_);
    if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1) {
        SSL_free(ssl);
        ::close(fd);
        ERR_clear_error();
        return;
    }
    if (driveSsl(ssl, fd, deadline, [&] { return SSL_accept(ssl); }) <= 0) {
        handshakeFailures_.fetch_add(1, std::memory_order_relaxed);
    } else {
        RecordedRequest request;
        request.sessionResumed = SSL_session_reused(ssl) == 1;
        if (X509* peer = SSL_get1_peer_certificate(ssl)) {
            request.clientCertPresented = true;
            request.clientCertVerified = SSL_get_verify_result(ssl) == X509_V_OK;
            request.clientCn = commonName(peer);
            X509_free(peer);
        }
        if (readRequest(ssl, fd, deadline, request)) {
            const std::size_t count = record(std::move(request));
            if (options_.afterRecord) {
                options_.afterRecord(count);
            }
            const int status = status_.load(std::memory_order_relaxed);
            if (status != 0 && awaitRelease(deadline) &&
                pause(delayMs_.load(std::memory_order_relaxed))) {
                const std::size_t bodyBytes = options_.responseBodyBytes;
                writeAll(ssl, fd, deadline,
                         "HTTP/1.1 " + std::to_string(status) + " " + reasonPhrase(status) +
                             "\r\nContent-Length: " + std::to_string(bodyBytes) +
                             "\r\nConnection: close\r\n\r\n" + std::string(bodyBytes, 'x'));
            }
        }
        SSL_shutdown(ssl); // send our close_notify; the peer's is not awaited
    }
    SSL_free(ssl);
    ::close(fd);
    ERR_clear_error();
}

} // namespace rfevent::testkit
