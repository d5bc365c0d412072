#include "base/fd.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace rfevent;

namespace {

// Runs body in a child process with SIGPIPE at its default action (which ends the process);
// the child's exit status is body's result.
int inChildWithDefaultSigpipe(int (*body)()) {
    pid_t child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        return 100 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

bool sigpipePending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

int writeToPipeWithoutReader() {
    int ends[2];
    if (pipe(ends) != 0) {
        return 1;
    }
    close(ends[0]);
    const ssize_t written = writeWithoutSigpipe(ends[1], "x", 1);
    const int error = errno;
    if (written != -1 || error != EPIPE) {
        return 2;
    }
    if (sigpipePending()) {
        return 3; // the signal the write raised must have been taken back
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1 ? 4 : 0; // and the mask restored
}

int keepTheHostsOwnPendingSigpipe() {
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr);
    raise(SIGPIPE); // the host's own, pending while it blocks the signal
    int ends[2];
    if (pipe(ends) != 0) {
        return 1;
    }
    close(ends[0]);
    if (writeWithoutSigpipe(ends[1], "x", 1) != -1) {
        return 2;
    }
    if (!sigpipePending()) {
        return 3; // the host's signal is not ours to take
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1 ? 0 : 4;
}

TEST(FdTest, WriteToAPipeWhoseReaderIsGoneFailsWithEpipeAndRaisesNoSignal) {
    EXPECT_EQ(inChildWithDefaultSigpipe(writeToPipeWithoutReader), 0);
}

TEST(FdTest, APendingSigpipeOfTheHostStaysPendingAndBlocked) {
    EXPECT_EQ(inChildWithDefaultSigpipe(keepTheHostsOwnPendingSigpipe), 0);
}

TEST(FdTest, UniqueFdClosesItsDescriptor) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    { UniqueFd reader(ends[0]); }
    EXPECT_EQ(writeWithoutSigpipe(ends[1], "x", 1), -1); // the reader was closed
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

} // namespace
