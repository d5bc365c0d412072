// Whether another process could take the serial-log lock now: asked from a child process,
// since the lock is a process's own.
#ifndef RFEVENT_TESTS_TELEMETRY_SERIAL_LOG_LOCK_H
#define RFEVENT_TESTS_TELEMETRY_SERIAL_LOG_LOCK_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/paths.h"

namespace rfevent::testkit {

inline bool serialLogLockIsFree() {
    pid_t child = fork();
    if (child == 0) {
        int fd = open(fixedPath(FixedPath::SerialLogLock), O_WRONLY | O_CREAT, 0644);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        _exit(fcntl(fd, F_SETLK, &lock) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace rfevent::testkit

#endif
