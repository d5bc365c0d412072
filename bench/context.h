// What every case needs: the run's sandbox, the programs it measures, and child processes.
#ifndef RFEVENT_BENCH_CONTEXT_H
#define RFEVENT_BENCH_CONTEXT_H

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "harness/certs.h"
#include "measure.h"
#include "rfevent/redfish_event.h"

namespace rfevent::bench {

struct Context {
    std::string root;        // RFEVENT_ROOT of this run
    std::string self;        // this program, started again for the child measurements
    std::string plugin;      // the x86-64 libredfishevent.so
    std::string armhfPlugin; // the armhf build of it; empty when not built
    std::string logFile;     // the plug-in's log; empty: log.txt in the sandbox
    bool quick = false;      // fewer rounds, for a smoke run
    testkit::TestPki pki;

    Schedule schedule(int rounds, int perRound) const;
};

// Points the product at a fresh sandbox (RFEVENT_ROOT), a free SSE port and a log file, at
// the default log level. Must run before any product code reads its paths.
void prepareEnvironment(Context& context);
void removeSandbox(const Context& context);

// Runs argv to its end and returns what it printed; *status gets its exit status.
std::string runProgram(const std::vector<std::string>& argv, int* status);
// The "key value" lines of a child's output.
std::map<std::string, double> parseKeyValues(const std::string& text);

// The alert every case raises: a warning with a message id, arguments and an FQDD.
DataEventHeader* sampleAlert();

// Reads and discards whatever arrives on a FIFO, so the product's writers always find a
// reader. Creates the FIFO when it is missing.
class FifoDrain {
  public:
    explicit FifoDrain(const std::string& path);
    ~FifoDrain();
    FifoDrain(const FifoDrain&) = delete;
    FifoDrain& operator=(const FifoDrain&) = delete;
    long long bytes() const { return bytes_.load(std::memory_order_relaxed); }

  private:
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<long long> bytes_{0};
    std::thread thread_;
};

} // namespace rfevent::bench

#endif
