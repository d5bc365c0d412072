#include "sse/transport.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log.h"
#include "base/paths.h"

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

// Connects to the first resolved address and sends msg once. Called with sse_send_mutex held.
void sendOverFreshConnection(const char* msg) {
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    int status = getaddrinfo(rfevent::sseHost(), rfevent::sseService(), &hints, &results);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]getaddrinfo: %s\n", gai_strerror(status));
        return;
    }
    const addrinfo* first = results;
    sse_sock_fd = socket(first->ai_family, first->ai_socktype, first->ai_protocol);
    if (sse_sock_fd == -1) {
        RF_LOG(kLogError, "[%s():%d]client: socket");
        freeaddrinfo(results);
        return;
    }
    if (connect(sse_sock_fd, first->ai_addr, first->ai_addrlen) == -1) {
        int error = errno;
        close(sse_sock_fd);
        sse_sock_fd = -1;
        freeaddrinfo(results);
        RF_LOG(kLogError, "[%s():%d]client: connect failure errorno:%d stderr:%s", error,
               strerror(error));
        return;
    }
    char peer[kPeerAddressSize];
    renderPeer(first, peer, sizeof peer);
    RF_LOG(kLogInfo, "[%s():%d]client: connecting to %s\n", peer);
    freeaddrinfo(results);

    std::size_t length = std::strlen(msg);
    RF_LOG(kLogError, "[%s():%d]buf length: %d", static_cast<int>(length));
    // MSG_NOSIGNAL: a peer that already closed its end must give EPIPE here, not a SIGPIPE
    // that would end the whole host process. It changes nothing in the bytes sent.
    ssize_t sent = send(sse_sock_fd, msg, length, MSG_NOSIGNAL);
    if (sent == -1) {
        RF_LOG(kLogError, "[%s():%d]send error");
    } else {
        RF_LOG(kLogError, "[%s():%d]numbytes %d", static_cast<int>(sent));
    }
    close(sse_sock_fd);
    sse_sock_fd = -1;
}

} // namespace

std::string messagePrefix(std::string_view message) {
    std::size_t at = message.find("<id:");
    return std::string(at == std::string_view::npos ? message : message.substr(0, at));
}

void sendReportMessage(const std::string& message) {
    if (message.size() <= static_cast<std::size_t>(kSsePieceSize)) {
        send_to_sock_sse(message.c_str());
        send_to_sock_sse((messagePrefix(message) + "<END>").c_str());
    } else {
        sse_chunk_send(message.c_str());
    }
}

int send_to_sse(const char* msg) {
    int result = 0;
    pthread_mutex_lock(&sse_send_mutex);
    sse_fifo_fd = open(rfevent::fixedPath(rfevent::FixedPath::SseFifo), O_WRONLY | O_NONBLOCK);
    if (sse_fifo_fd < 0) {
        RF_LOG(kLogError, "[%s():%d]SSE FIFO Open Error %s", strerror(errno));
        result = 1;
    } else {
        RF_LOG(kLogInfo, "[%s():%d]Write FIFO");
        // The NUL travels with the text: it is what separates messages in the pipe.
        ssize_t written = write(sse_fifo_fd, msg, std::strlen(msg) + 1);
        if (written < 1) {
            int error = errno;
            RF_LOG(kLogError, "[%s():%d]Write FIFO writeCount = %d errorno = %d stderr = %s",
                   static_cast<int>(written), error, strerror(error));
            result = 1;
        }
        close(sse_fifo_fd);
        sse_fifo_fd = -1;
    }
    pthread_mutex_unlock(&sse_send_mutex);
    return result;
}

int send_to_sock_sse(const char* msg) {
    RF_ENTER();
    pthread_mutex_lock(&sse_send_mutex);
    sendOverFreshConnection(msg);
    pthread_mutex_unlock(&sse_send_mutex);
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
        send_to_sock_sse(chunk.c_str());
    }
    send_to_sock_sse((prefix + "<END>").c_str());
    return 0;
}

} // namespace rfevent
