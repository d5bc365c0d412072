// A pipe thread's loop run on a thread of the test, with a run flag of its own, and stopped
// and joined when the test ends: the real thread bodies never return by design (or park for
// the rest of the process), and no test may leave a thread running past its end.
#ifndef RFEVENT_TESTS_TELEMETRY_RUNNING_PIPE_H
#define RFEVENT_TESTS_TELEMETRY_RUNNING_PIPE_H

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "base/pipe_thread.h"
#include "base/run_flags.h"

namespace rfevent::testkit {

class RunningPipe {
  public:
    explicit RunningPipe(PipeThread pipe)
        : pipe_(std::move(pipe)), thread_([this] {
              runPipeThread(pipe_, &flag_);
              done_ = true;
          }) {}
    RunningPipe(const RunningPipe&) = delete;
    RunningPipe& operator=(const RunningPipe&) = delete;

    // Raises the flag; a loop blocked opening the pipe, or reading it while no writer has it
    // open, is released by a writer that comes and goes, until the loop has ended.
    ~RunningPipe() {
        flag_ = 1;
        while (!done_) {
            int writer = ::open(pipe_.path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
            if (writer >= 0) {
                ::close(writer);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        thread_.join();
    }

  private:
    PipeThread pipe_;
    RunFlag flag_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

} // namespace rfevent::testkit

#endif
