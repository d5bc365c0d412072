// Test-only access to the steps of the pipe loop: one open of the pipe, one read of it.
#ifndef RFEVENT_BASE_PIPE_THREAD_INTERNAL_H
#define RFEVENT_BASE_PIPE_THREAD_INTERNAL_H

#include <sys/types.h>

#include "base/fd.h"
#include "base/pipe_thread.h"

namespace rfevent {

// Creates the pipe (mode 0660) and opens it for reading, blocking until a writer opens it. An
// invalid descriptor when the pipe could not be created or opened, or when something else than
// a named pipe stands at the path (logged; the next pass looks again).
UniqueFd openPipe(const PipeThread& pipe);

// One read of the open pipe, handed to handleRead; returns read()'s result. No pause.
ssize_t readPipeOnce(const PipeThread& pipe, int fd);

} // namespace rfevent

#endif
