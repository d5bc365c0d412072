#include "harness/sse_receiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace rfevent::testkit {
namespace {

constexpr const char* kIdMarker = "<id:";
constexpr const char* kEndMarker = "<END>";
constexpr std::size_t kPieceSize = 4096; // most message bytes the product puts in one piece
constexpr auto kPieceIdleLimit = std::chrono::seconds(10); // a client that never closes

bool startsWith(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
    }
    fd = -1;
}

[[noreturn]] void failWithErrno(const std::string& what) {
    throw std::runtime_error("sse receiver: " + what + ": " + std::strerror(errno));
}

} // namespace

std::string ssePrefix(const std::string& message) {
    const auto at = message.find(kIdMarker);
    return at == std::string::npos ? message : message.substr(0, at);
}

std::vector<SseMessage> reassembleSsePieces(const std::vector<std::string>& pieces) {
    struct Open {
        std::size_t index; // into messages
        bool expectsMore;  // the last data piece was full, so data may follow
    };
    std::vector<SseMessage> messages;
    std::vector<Open> open;

    // The open message that can continue and whose key heads `piece`; the
    // longest key wins.
    auto findContinuable = [&](const std::string& piece) {
        auto best = open.end();
        for (auto it = open.begin(); it != open.end(); ++it) {
            const std::string& key = messages[it->index].key;
            if (!it->expectsMore || !startsWith(piece, key)) {
                continue;
            }
            if (best == open.end() || key.size() > messages[best->index].key.size()) {
                best = it;
            }
        }
        return best;
    };

    for (const std::string& piece : pieces) {
        if (endsWith(piece, kEndMarker)) {
            const std::string key = piece.substr(0, piece.size() - std::strlen(kEndMarker));
            auto it = std::find_if(open.begin(), open.end(),
                                   [&](const Open& o) { return messages[o.index].key == key; });
            if (it != open.end()) {
                messages[it->index].complete = true;
                open.erase(it);
                continue;
            }
            if (key.find(kIdMarker) == std::string::npos) {
                messages.push_back({key, "", true}); // an end marker with no data before it
                continue;
            }
        }
        auto it = piece.find(kIdMarker) == std::string::npos ? findContinuable(piece) : open.end();
        if (it != open.end()) {
            const std::size_t dataSize = piece.size() - messages[it->index].key.size();
            messages[it->index].text += piece.substr(messages[it->index].key.size());
            it->expectsMore = dataSize == kPieceSize;
            continue;
        }
        const std::string key = ssePrefix(piece);
        open.erase(std::remove_if(open.begin(), open.end(),
                                  [&](const Open& o) { return messages[o.index].key == key; }),
                   open.end()); // same key again: the older message lost its end
        messages.push_back({key, piece, false});
        open.push_back({messages.size() - 1, piece.size() == kPieceSize});
    }
    return messages;
}

SseReceiver::SseReceiver(SseReceiverOptions options) {
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC) != 0) {
        failWithErrno("pipe2");
    }
    wakeRead_ = wake[0];
    wakeWrite_ = wake[1];
    try {
        if (!options.fifoPath.empty()) {
            openFifo(options.fifoPath);
        }
        if (options.port >= 0) {
            openListener(options.port);
        }
        if (fifoFd_ >= 0) {
            fifoThread_ = std::thread([this] { fifoLoop(); });
        }
        if (listenFd_ >= 0) {
            socketThread_ = std::thread([this] { socketLoop(); });
        }
    } catch (...) {
        stop();
        throw;
    }
}

SseReceiver::~SseReceiver() {
    stop();
}

int SseReceiver::portFromEnvironment() {
    const char* text = std::getenv("RFEVENT_SSE_PORT");
    if (text == nullptr || *text == '\0') {
        throw std::runtime_error("RFEVENT_SSE_PORT is not set");
    }
    char* end = nullptr;
    const long port = std::strtol(text, &end, 10);
    if (*end != '\0' || port <= 0 || port > 65535) {
        throw std::runtime_error(std::string("RFEVENT_SSE_PORT is not a port: ") + text);
    }
    return static_cast<int>(port);
}

// Creates the FIFO if needed and opens it for reading, then opens it once for
// writing too: with a writer always present the read end never reports a
// hang-up between the product's short-lived writers.
void SseReceiver::openFifo(const std::string& path) {
    if (::mkfifo(path.c_str(), 0660) != 0 && errno != EEXIST) {
        failWithErrno("mkfifo " + path);
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISFIFO(info.st_mode)) {
        throw std::runtime_error("sse receiver: not a FIFO: " + path);
    }
    fifoFd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fifoFd_ < 0) {
        failWithErrno("open " + path);
    }
    fifoKeepAliveFd_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fifoKeepAliveFd_ < 0) {
        failWithErrno("open for writing " + path);
    }
}

void SseReceiver::openListener(int port) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0) {
        failWithErrno("socket");
    }
    const int on = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof address;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        failWithErrno("bind 127.0.0.1:" + std::to_string(port));
    }
    if (::listen(listenFd_, 128) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        failWithErrno("listen");
    }
    port_ = ntohs(address.sin_port);
}

void SseReceiver::releaseResources() {
    closeFd(fifoFd_);
    closeFd(fifoKeepAliveFd_);
    closeFd(listenFd_);
    closeFd(wakeRead_);
    closeFd(wakeWrite_);
}

void SseReceiver::stop() {
    if (stopped_) {
        return;
    }
    stopped_ = true;
    const char byte = 1;
    // One byte in an otherwise empty pipe: cannot fail while we hold the read end.
    if (wakeWrite_ >= 0 && ::write(wakeWrite_, &byte, 1) != 1) {
        std::abort();
    }
    if (fifoThread_.joinable()) {
        fifoThread_.join();
    }
    if (socketThread_.joinable()) {
        socketThread_.join();
    }
    releaseResources();
}

void SseReceiver::fifoLoop() {
    for (;;) {
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {fifoFd_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || fds[0].revents != 0) {
            break;
        }
        if (fds[1].revents != 0) {
            drainFifo();
        }
    }
    drainFifo(); // whatever was written before stop()
}

// Reads everything the FIFO holds now and splits off complete messages.
void SseReceiver::drainFifo() {
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fifoFd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return; // EAGAIN: drained
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            fifoBytes_.append(buffer, static_cast<std::size_t>(n));
            std::size_t nul;
            while ((nul = fifoBytes_.find('\0', fifoSplitAt_)) != std::string::npos) {
                fifoMessages_.push_back(fifoBytes_.substr(fifoSplitAt_, nul - fifoSplitAt_));
                fifoSplitAt_ = nul + 1;
            }
        }
        changed_.notify_all();
    }
}

// Serves one connection at a time: each is read to its end and becomes one piece.
void SseReceiver::socketLoop() {
    for (;;) {
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || fds[0].revents != 0) {
            return;
        }
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            continue;
        }
        std::string piece = readPiece(fd);
        ::close(fd);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pieces_.push_back(std::move(piece));
        }
        changed_.notify_all();
    }
}

// All bytes until the client closes (or stop(), or kPieceIdleLimit of silence).
std::string SseReceiver::readPiece(int fd) const {
    std::string piece;
    char buffer[16384];
    for (;;) {
        pollfd fds[2] = {{wakeRead_, POLLIN, 0}, {fd, POLLIN, 0}};
        const int ready =
            ::poll(fds, 2, static_cast<int>(std::chrono::milliseconds(kPieceIdleLimit).count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return piece;
        }
        if (fds[1].revents != 0) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
                continue;
            }
            if (n <= 0) {
                return piece;
            }
            piece.append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (fds[0].revents != 0) {
            return piece;
        }
    }
}

std::string SseReceiver::fifoBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fifoBytes_;
}

std::vector<std::string> SseReceiver::fifoMessages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fifoMessages_;
}

std::vector<std::string> SseReceiver::pieces() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pieces_;
}

bool SseReceiver::waitForFifoMessages(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return fifoMessages_.size() >= count; });
}

bool SseReceiver::waitForPieces(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return pieces_.size() >= count; });
}

bool SseReceiver::sendMarker(std::chrono::milliseconds timeout) const {
    if (port_ < 0) {
        throw std::runtime_error("sse receiver: a marker needs the socket channel");
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        failWithErrno("socket");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port_));
    const std::string marker = kMarker;
    // The marker is the test's own: a signal storm meant for the plug-in must not cut its
    // connect or send short, so this thread holds every signal back until the marker is out.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    const bool sent = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                      ::send(fd, marker.data(), marker.size(), MSG_NOSIGNAL) ==
                          static_cast<ssize_t>(marker.size());
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    ::close(fd);
    if (!sent) {
        errno = error;
        failWithErrno("sending the marker");
    }
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        return std::find(pieces_.begin(), pieces_.end(), marker) != pieces_.end();
    });
}

void SseReceiver::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    fifoBytes_.clear();
    fifoMessages_.clear();
    fifoSplitAt_ = 0;
    pieces_.clear();
}

} // namespace rfevent::testkit
