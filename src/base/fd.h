// Owned descriptors and the writes every channel shares.
#ifndef RFEVENT_BASE_FD_H
#define RFEVENT_BASE_FD_H

#include <signal.h>
#include <sys/types.h>

#include <cstddef>

namespace rfevent {

// A descriptor closed when its owner goes away. Every descriptor the plug-in opens is opened
// with close-on-exec, so a host that starts programs does not leak them, and is owned here at
// once: one that landed on 0, 1 or 2 (a host that closed its standard streams) is moved above
// them, so nothing the host writes to its standard streams reaches a file of the plug-in.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) { reset(fd); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release();
    // Takes fd (moved above standard error when it is 0, 1 or 2; invalid, errno set, when it
    // cannot be moved) and closes the one held before.
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

// Fills whichever of descriptors 0, 1 and 2 is closed with /dev/null (close-on-exec, kept for
// the process's life), for libraries that open their own files, such as SQLite: none of their
// files can then become a standard stream of the host. A host with its standard streams open
// is left as it is.
void reserveStandardStreams();

// Blocks SIGPIPE in the calling thread while it lives, so that nothing done meanwhile (a write,
// a whole transfer) can raise it in the host. When it goes, a SIGPIPE raised meanwhile is taken
// back (one that was pending before is the host's and stays) and the thread's mask restored;
// errno is kept. The host's own handling of SIGPIPE is never touched.
class SigpipeBlocked {
  public:
    SigpipeBlocked();
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;
    ~SigpipeBlocked();

  private:
    sigset_t pipeOnly_;
    sigset_t saved_;
    bool pendingBefore_;
};

// writeOnce that cannot raise SIGPIPE in the process when the reader is gone (SigpipeBlocked
// around the write). The result and errno are the write's.
ssize_t writeWithoutSigpipe(int fd, const void* data, std::size_t length);

// Writes the whole buffer, continuing after short writes and interruptions; false on an error
// (errno tells which).
bool writeAll(int fd, const void* data, std::size_t length);

} // namespace rfevent

#endif
