#include "harness/signal_storm.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace rfevent::testkit {

namespace {

std::atomic<long> g_handled{0};

void countSignal(int) {
    g_handled.fetch_add(1, std::memory_order_relaxed);
}

// Sends signal to every thread of the process but the calling one.
void signalEveryThread(int signal) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return;
    }
    const long self = syscall(SYS_gettid);
    const long process = getpid();
    while (dirent* entry = readdir(tasks)) {
        const long thread = std::strtol(entry->d_name, nullptr, 10);
        if (thread > 0 && thread != self) {
            syscall(SYS_tgkill, process, thread, signal);
        }
    }
    closedir(tasks);
}

} // namespace

SignalStorm::SignalStorm(int signal) : signal_(signal) {
    struct sigaction action = {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: interrupted calls fail with EINTR
    sigaction(signal_, &action, &previous_);
    sender_ = std::thread([this] { run(); });
}

SignalStorm::~SignalStorm() {
    stop_.store(true);
    sender_.join();
    sigaction(signal_, &previous_, nullptr);
}

long SignalStorm::handled() const {
    return g_handled.load(std::memory_order_relaxed);
}

void SignalStorm::run() {
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal_);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    const timespec period = {0, 1000000};
    while (!stop_.load()) {
        signalEveryThread(signal_);
        nanosleep(&period, nullptr);
    }
}

} // namespace rfevent::testkit
