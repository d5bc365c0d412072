#include "base/pipe_thread.h"
#include "base/pipe_thread_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/guard.h"
#include "base/log.h"
#include "base/pause.h"

namespace rfevent {

namespace {

bool isNamedPipe(int fd) {
    struct stat info;
    return ::fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}

// Waits for a writer; a signal handled meanwhile does not end the wait.
int openForReadingWhenWritten(const char* path) {
    int fd = -1;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// A read that failed: read again while a signal handled before anything arrived is why. Out of
// line, so that the common read keeps no register of its own for this rare path.
__attribute__((noinline, cold)) ssize_t readAgainAfterSignal(int fd, char* buffer,
                                                             std::size_t size) {
    ssize_t count = -1;
    while (count < 0 && errno == EINTR) {
        count = ::read(fd, buffer, size);
    }
    return count;
}

} // namespace

UniqueFd openPipe(const PipeThread& pipe) {
    RF_LOG(kLogInfo, "[%s():%d]%s FIFO CREATION", pipe.texts.creationLabel);
    int status = ::mkfifo(pipe.path, 0660);
    int error = errno;
    RF_LOG(kLogInfo, "[%s():%d]%s FIFO  status = %d , errno = %d  %s", pipe.texts.label, status,
           error, std::strerror(error));
    if (status != 0 && error != EEXIST) {
        return UniqueFd();
    }
    if (pipe.beforeOpen && !pipe.beforeOpen()) {
        return UniqueFd();
    }
    RF_LOG(kLogInfo, "[%s():%d]%s FIFO created", pipe.texts.label);
    RF_LOG(kLogInfo, "[%s():%d]waiting on %s  %s", pipe.texts.waitName, pipe.path);
    UniqueFd fd(openForReadingWhenWritten(pipe.path));
    RF_LOG(kLogInfo, "[%s():%d]%s Opened %s", pipe.texts.pipeName, pipe.path);
    if (!fd.valid()) {
        RF_LOG(pipe.texts.openFailedLevel, "[%s():%d]Named pipe open failed");
        return fd;
    }
    if (!isNamedPipe(fd.get())) {
        RF_LOG(kLogError, "[%s():%d]%s is not a named pipe; looking again on the next pass",
               pipe.path);
        fd.reset();
    }
    return fd;
}

ssize_t readPipeOnce(const PipeThread& pipe, int fd) {
    // A constant spot: only the guard's failure path reads it, from memory, so that no register
    // is kept for it around every read's handling.
    static constexpr SourceSpot kSpot = RF_HERE;
    ssize_t count = ::read(fd, pipe.buffer, pipe.readSize);
    if (count < 0) {
        count = readAgainAfterSignal(fd, pipe.buffer, pipe.readSize);
    }
    if (count >= 0) {
        guarded(kSpot, "Pipe read dropped", [&] { pipe.handleRead(pipe.buffer, count); });
    }
    return count;
}

namespace {

// Reads the open pipe until read() fails, with the pipe's pauses between reads. A read that
// finds no writer while the flag is raised ends the reading too.
void readPipe(const PipeThread& pipe, int fd, const RunFlag* flag) {
    for (;;) {
        ssize_t count = readPipeOnce(pipe, fd);
        if (count < 0 || (count == 0 && !keepRunning(flag))) {
            return;
        }
        if (count == 0 && pipe.noWriterPause > 0) {
            pauseSeconds(pipe.noWriterPause);
        }
        if (pipe.readPause > 0) {
            pauseSeconds(pipe.readPause);
        }
    }
}

} // namespace

void runPipeThread(const PipeThread& pipe, const RunFlag* flag) {
    while (keepRunning(flag)) {
        guarded(RF_HERE, "Pipe pass dropped", [&] {
            UniqueFd fd = openPipe(pipe);
            if (fd.valid()) {
                readPipe(pipe, fd.get(), flag);
            }
        });
        if (!keepRunning(flag)) {
            break;
        }
        pauseSeconds(1);
    }
}

void parkForever() {
    for (;;) {
        pauseSeconds(3600);
    }
}

} // namespace rfevent
