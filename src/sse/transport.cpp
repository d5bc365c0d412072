#include "sse/transport.h"
#include "sse/transport_internal.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "base/fd.h"
#include "base/log.h"
#include "base/mutex_lock.h"
#include "base/paths.h"
#include "base/pause.h"
#include "sse/message.h"

namespace rfevent {

pthread_mutex_t sse_send_mutex = PTHREAD_MUTEX_INITIALIZER;
int sse_fifo_fd = -1;
int sse_sock_fd = -1;

namespace {

constexpr std::size_t kPeerAddressSize = 46; // room for any textual IPv6 address

// The peer's address of a resolved entry, as text.
void renderPeer(const addrinfo* entry, char* out, socklen_t outSize) {
    const void* address = nullptr;
    if (entry->ai_family == AF_INET) {
        address = &reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr;
    } else {
        address = &reinterpret_cast<const sockaddr_in6*>(entry->ai_addr)->sin6_addr;
    }
    if (inet_ntop(entry->ai_family, address, out, outSize) == nullptr) {
        out[0] = '\0';
    }
}

// How long the SSE stream server may take to accept a connection, and to take a piece. A
// server that stops accepting must not hold the callers (the alert entry among them) for the
// minutes the kernel would keep trying.
constexpr int kTimeoutSeconds = 2;

// How a piece fared. The senders of a message's pieces are handed it back: the plug-in keeps
// no thread-local state (a loaded library's is allocated at a thread's first use, and the C
// library ends the process when that allocation fails).
enum class PieceResult { Sent, Failed, NotAccepted };

// Waits until a connect that a signal interrupted has finished, at most until deadline; 0 or the
// errno of the failure. The kernel goes on connecting after the interruption: the outcome is
// read from the socket once it turns writable.
int finishInterruptedConnect(int fd, const timespec& deadline) {
    pollfd entry = {fd, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, millisecondsUntil(deadline));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return ready == 0 ? ETIMEDOUT : errno;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        return errno;
    }
    return error;
}

// Connects fd to address; 0 or the errno of the failure. The socket's send time-out bounds
// the connect as well (a connect it cuts short is reported as timed out), and then every send.
int connectBounded(int fd, const addrinfo* address) {
    const timespec deadline = deadlineAfterMilliseconds(kTimeoutSeconds * 1000L);
    const timeval limit = {kTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(fd, address->ai_addr, address->ai_addrlen) == 0) {
        return 0;
    }
    if (errno == EINTR) {
        return finishInterruptedConnect(fd, deadline);
    }
    return errno == EINPROGRESS ? ETIMEDOUT : errno;
}

// One send of the whole text, repeated when a signal interrupted it before anything went out,
// as long as the send time-out has not passed since the first try.
ssize_t sendOnce(int fd, const char* msg, std::size_t length) {
    const timespec deadline = deadlineAfterMilliseconds(kTimeoutSeconds * 1000L);
    ssize_t sent = 0;
    do {
        // MSG_NOSIGNAL: a peer that already closed its end gives EPIPE here, not a SIGPIPE
        // that would end the whole host process.
        sent = send(fd, msg, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR && millisecondsUntil(deadline) > 0);
    return sent;
}

// The stream server's address as the first resolved entry gives it, and that address as text.
struct Peer {
    addrinfo entry;
    sockaddr_storage address;
    char text[kPeerAddressSize];
};

void keepPeer(const addrinfo* first, Peer& peer) {
    peer.entry = *first;
    std::memcpy(&peer.address, first->ai_addr, first->ai_addrlen);
    peer.entry.ai_addr = reinterpret_cast<sockaddr*>(&peer.address);
    peer.entry.ai_canonname = nullptr;
    peer.entry.ai_next = nullptr;
    renderPeer(first, peer.text, sizeof peer.text);
}

bool allDigits(const char* text) {
    if (*text == '\0') {
        return false;
    }
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') {
            return false;
        }
    }
    return true;
}

// The host and the service never change while the process runs. A numeric address and port
// resolve to the same entry every time, so theirs is kept after the first success (the cost of
// resolving and rendering it is a good part of the plug-in's own work per piece); a name is
// resolved for every piece. Only touched with sse_send_mutex held.
Peer g_numericPeer;
bool g_numericPeerKept = false;

bool isNumericAddress(const char* host, const char* service) {
    unsigned char address[sizeof(in6_addr)];
    return allDigits(service) &&
           (inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, host, address) == 1);
}

// Resolves the stream server's address: the kept one of a numeric address, else into scratch.
// Null (logged) when it cannot be resolved.
const Peer* resolvePeer(Peer& scratch) {
    if (g_numericPeerKept) {
        return &g_numericPeer;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* resolved = nullptr;
    int status = getaddrinfo(sseHost(), sseService(), &hints, &resolved);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]getaddrinfo: %s\n", gai_strerror(status));
        return nullptr;
    }
    keepPeer(resolved, scratch);
    freeaddrinfo(resolved);
    if (isNumericAddress(sseHost(), sseService())) {
        keepPeer(&scratch.entry, g_numericPeer);
        g_numericPeerKept = true;
    }
    return &scratch;
}

// Connects to the first resolved address and sends msg once. Called with sse_send_mutex held.
PieceResult sendOverFreshConnection(std::string_view msg) {
    Peer scratch;
    const Peer* peer = resolvePeer(scratch);
    if (peer == nullptr) {
        return PieceResult::Failed;
    }
    const addrinfo* first = &peer->entry;
    UniqueFd socketFd(
        socket(first->ai_family, first->ai_socktype | SOCK_CLOEXEC, first->ai_protocol));
    sse_sock_fd = socketFd.get();
    if (!socketFd.valid()) {
        RF_LOG(kLogError, "[%s():%d]client: socket");
        return PieceResult::Failed;
    }
    int error = connectBounded(socketFd.get(), first);
    if (error != 0) {
        socketFd.reset();
        sse_sock_fd = -1;
        RF_LOG(kLogError, "[%s():%d]client: connect failure errorno:%d stderr:%s", error,
               strerror(error));
        return error == ETIMEDOUT ? PieceResult::NotAccepted : PieceResult::Failed;
    }
    ssize_t sent = sendOnce(socketFd.get(), msg.data(), msg.size());
    socketFd.reset();
    sse_sock_fd = -1;

    // The piece's lines, in the order of its steps, are written once its connection is closed:
    // the server gets the whole piece without waiting on the log writes.
    RF_LOG(kLogInfo, "[%s():%d]client: connecting to %s\n", peer->text);
    RF_LOG(kLogError, "[%s():%d]buf length: %d", static_cast<int>(msg.size()));
    if (sent == -1) {
        RF_LOG(kLogError, "[%s():%d]send error");
    } else {
        RF_LOG(kLogError, "[%s():%d]numbytes %d", static_cast<int>(sent));
    }
    return sent == -1 ? PieceResult::Failed : PieceResult::Sent;
}

// After a piece the stream server did not accept in time the rest of the message is dropped:
// every further piece would wait as long again.
bool serverStoppedAccepting(PieceResult lastPiece) {
    if (lastPiece != PieceResult::NotAccepted) {
        return false;
    }
    RF_LOG(kLogError, "[%s():%d]SSE stream server accepts no connection; rest of the message "
                      "dropped");
    return true;
}

// send_to_sock_sse for the senders of a message's pieces: the same entry line and steps, and
// how the piece fared.
struct WithOutcome {};
PieceResult send_to_sock_sse(const char* msg, WithOutcome /*unused*/) {
    RF_ENTER();
    MutexLock lock(sse_send_mutex);
    return sendOverFreshConnection(msg);
}

} // namespace

void sendReportMessage(const std::string& message) {
    if (message.size() > static_cast<std::size_t>(kSsePieceSize)) {
        sse_chunk_send(message.c_str());
        return;
    }
    if (!serverStoppedAccepting(send_to_sock_sse(message.c_str(), WithOutcome{}))) {
        send_to_sock_sse(endMarker(messagePrefix(message)).c_str(), WithOutcome{});
    }
}

int send_to_sse(const char* msg) {
    int result = 0;
    MutexLock lock(sse_send_mutex);
    UniqueFd fifo(open(fixedPath(FixedPath::SseFifo), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    sse_fifo_fd = fifo.get();
    if (!fifo.valid()) {
        RF_LOG(kLogError, "[%s():%d]SSE FIFO Open Error %s", strerror(errno));
        return 1;
    }
    RF_LOG(kLogInfo, "[%s():%d]Write FIFO");
    // The NUL travels with the text: it is what separates messages in the pipe. A reader
    // that went away between the open and the write gives EPIPE, never SIGPIPE.
    ssize_t written = writeWithoutSigpipe(fifo.get(), msg, std::strlen(msg) + 1);
    if (written < 1) {
        int error = errno;
        RF_LOG(kLogError, "[%s():%d]Write FIFO writeCount = %d errorno = %d stderr = %s",
               static_cast<int>(written), error, strerror(error));
        result = 1;
    }
    fifo.reset();
    sse_fifo_fd = -1;
    return result;
}

int send_to_sock_sse(const char* msg) {
    send_to_sock_sse(msg, WithOutcome{});
    return 0;
}

int sse_chunk_send(const char* msg) {
    // The pieces are cut from the caller's text, which stays put during the call; only the
    // piece being sent is copied.
    const std::string_view text(msg);
    const std::string prefix = messagePrefix(text);
    const std::size_t pieceSize = static_cast<std::size_t>(kSsePieceSize);
    std::size_t offset = 0;
    bool finished = false;
    std::string chunk;
    chunk.reserve(prefix.size() + pieceSize);
    // An offset that lands exactly on the end does not finish the loop: a length that is a
    // multiple of the piece size is followed by one piece holding the prefix alone.
    while (!finished) {
        chunk.clear();
        if (offset != 0) {
            chunk = prefix;
        }
        chunk.append(text.substr(offset, std::min(pieceSize, text.size() - offset)));
        offset += pieceSize;
        if (offset > text.size()) {
            finished = true;
        }
        RF_LOG(kLogDebug, "[%s():%d]str:%s", chunk.c_str());
        if (serverStoppedAccepting(send_to_sock_sse(chunk.c_str(), WithOutcome{}))) {
            return 0;
        }
    }
    send_to_sock_sse(endMarker(prefix).c_str(), WithOutcome{});
    return 0;
}

} // namespace rfevent
