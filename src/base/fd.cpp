#include "base/fd.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

namespace rfevent {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int UniqueFd::release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
}

void UniqueFd::reset(int fd) {
    if (fd >= 0 && fd <= STDERR_FILENO) {
        const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        ::close(fd);
        errno = error;
        fd = moved;
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

void reserveStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
            continue;
        }
        // The lowest free descriptor: this one, or a lower one closed meanwhile.
        const int placeholder = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (placeholder > STDERR_FILENO) {
            ::close(placeholder);
            return;
        }
        if (placeholder < 0) {
            return;
        }
        fd = STDIN_FILENO - 1; // look at all three again
    }
}

namespace {

bool sigpipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

// One write() of the whole buffer, repeated only when a signal interrupted it before anything
// was written. The result is write()'s.
ssize_t writeOnce(int fd, const void* data, std::size_t length) {
    ssize_t written = 0;
    do {
        written = ::write(fd, data, length);
    } while (written < 0 && errno == EINTR);
    return written;
}

} // namespace

SigpipeBlocked::SigpipeBlocked() : pendingBefore_(sigpipePending()) {
    sigemptyset(&pipeOnly_);
    sigaddset(&pipeOnly_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly_, &saved_);
}

SigpipeBlocked::~SigpipeBlocked() {
    const int error = errno;
    if (!pendingBefore_ && sigpipePending()) {
        const timespec noWait = {0, 0};
        while (sigtimedwait(&pipeOnly_, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    errno = error;
}

ssize_t writeWithoutSigpipe(int fd, const void* data, std::size_t length) {
    const SigpipeBlocked blocked;
    return writeOnce(fd, data, length);
}

bool writeAll(int fd, const void* data, std::size_t length) {
    const char* next = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t written = writeOnce(fd, next, length);
        if (written < 0) {
            return false;
        }
        next += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace rfevent
