// A host with a fast periodic timer: a signal whose handler is installed without SA_RESTART,
// sent to every thread of the process every millisecond, so that any blocking call of the
// plug-in that does not resume after EINTR fails or returns early while the storm lasts.
#ifndef RFEVENT_TESTS_SIGNAL_STORM_H
#define RFEVENT_TESTS_SIGNAL_STORM_H

#include <atomic>
#include <csignal>
#include <thread>

namespace rfevent::testkit {

class SignalStorm {
  public:
    // Installs the handler (no SA_RESTART) for signal and starts sending it.
    explicit SignalStorm(int signal = SIGUSR1);
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;
    // Stops sending and puts the previous handler back.
    ~SignalStorm();

    // Signals handled so far, in any thread.
    long handled() const;

  private:
    void run();

    int signal_;
    struct sigaction previous_ = {};
    std::atomic<bool> stop_{false};
    std::thread sender_;
};

} // namespace rfevent::testkit

#endif
