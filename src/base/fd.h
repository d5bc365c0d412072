// Owned descriptors and the writes every channel shares.
#ifndef RFEVENT_BASE_FD_H
#define RFEVENT_BASE_FD_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace rfevent {

// A descriptor closed when its owner goes away. Every descriptor the plug-in opens is opened
// with close-on-exec, so a host that starts programs does not leak them.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release();
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

// One write() of the whole buffer, repeated only when a signal interrupted it before anything
// was written. The result is write()'s.
ssize_t writeOnce(int fd, const void* data, std::size_t length);

// writeOnce that cannot raise SIGPIPE in the process when the reader is gone: SIGPIPE is
// blocked in the calling thread for the write, and one the write raised is taken back before
// the thread's mask is restored. The host's own handling of SIGPIPE is never touched. The
// result and errno are the write's.
ssize_t writeWithoutSigpipe(int fd, const void* data, std::size_t length);

// Writes the whole buffer, continuing after short writes and interruptions; false on an error
// (errno tells which).
bool writeAll(int fd, const void* data, std::size_t length);

// Appends everything left to read on fd to text, reading straight into the string (no buffer
// on the caller's stack), continuing after interruptions; 0 at the end of the file, or the
// errno of a failed read.
int readAll(int fd, std::string& text);

} // namespace rfevent

#endif
