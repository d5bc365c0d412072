#include "base/fd.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

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
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

ssize_t writeOnce(int fd, const void* data, std::size_t length) {
    ssize_t written = 0;
    do {
        written = ::write(fd, data, length);
    } while (written < 0 && errno == EINTR);
    return written;
}

ssize_t writeWithoutSigpipe(int fd, const void* data, std::size_t length) {
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    const bool pendingBefore = sigismember(&pending, SIGPIPE) == 1;
    sigset_t saved;
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &saved);
    const ssize_t written = writeOnce(fd, data, length);
    const int error = errno;
    if (written < 0 && error == EPIPE && !pendingBefore) {
        const timespec noWait = {0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    errno = error;
    return written;
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

int readAll(int fd, std::string& text) {
    constexpr std::size_t kStep = 4096;
    for (;;) {
        // Room reserved beforehand (a file's known size) is used before the string grows.
        const std::size_t used = text.size();
        text.resize(std::max(text.capacity(), used + kStep));
        const ssize_t count = ::read(fd, &text[used], text.size() - used);
        const int error = errno;
        text.resize(used + static_cast<std::size_t>(count > 0 ? count : 0));
        if (count == 0) {
            return 0;
        }
        if (count < 0 && error != EINTR) {
            return error;
        }
    }
}

} // namespace rfevent
