// The one loop of the three pipe threads (report names, test reports, replay requests): create
// the named pipe, open it, read until read() fails, close, pause, again, while the thread's run
// flag reads 0. What a read means, and the thread's own log texts, come from its PipeThread.
#ifndef RFEVENT_BASE_PIPE_THREAD_H
#define RFEVENT_BASE_PIPE_THREAD_H

#include <sys/types.h>

#include <cstddef>
#include <functional>

#include "base/fd.h"
#include "base/run_flags.h"

namespace rfevent {

// How one pipe thread words its log lines: "<creationLabel> FIFO CREATION",
// "<label> FIFO  status = ...", "<label> FIFO created", "waiting on <waitName>  <path>",
// "<pipeName> Opened <path>", and "Named pipe open failed" at openFailedLevel.
struct PipeTexts {
    const char* creationLabel;
    const char* label;
    const char* waitName;
    const char* pipeName;
    int openFailedLevel;
};

struct PipeThread {
    const char* path;
    PipeTexts texts;
    char* buffer;           // the thread's receive buffer
    std::size_t readSize;   // bytes asked of one read
    unsigned noWriterPause; // seconds slept after a read of 0 bytes (no writer)
    unsigned readPause;     // seconds slept after every read

    // Runs once the pipe exists and before it is opened; false ends the pass (may be empty).
    std::function<bool()> beforeOpen;
    // Handles what one read left in buffer (count >= 0). An exception drops that read only.
    std::function<void(char* buffer, ssize_t count)> handleRead;
};

// Passes of open and read until the flag is raised, pausing a second between passes.
void runPipeThread(const PipeThread& pipe, const RunFlag* flag);

// Where a worker thread that must not end waits for the rest of the process's life.
[[noreturn]] void parkForever();

} // namespace rfevent

#endif
