#include "context.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "alert_record.h"
#include "harness/sandbox.h"

namespace rfevent::bench {

namespace {

int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no free loopback port");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

} // namespace

Schedule Context::schedule(int rounds, int perRound) const {
    if (quick) {
        return {3, 1};
    }
    return {rounds, perRound};
}

void prepareEnvironment(Context& context) {
    if (context.root.empty()) {
        char pattern[] = "/tmp/rfevent-bench.XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            throw std::runtime_error("cannot create the sandbox folder");
        }
        context.root = pattern;
        ::setenv("RFEVENT_ROOT", context.root.c_str(), 1);
        ::setenv("RFEVENT_SSE_PORT", std::to_string(freeLoopbackPort()).c_str(), 1);
        if (context.logFile.empty()) {
            context.logFile = context.root + "/log.txt";
        }
        ::setenv("RFEVENT_LOG_FILE", context.logFile.c_str(), 1);
        ::unsetenv("RFEVENT_LOG_LEVEL");
    }
    testkit::resetSandbox();
    context.pki = testkit::generateTestPki(context.root + "/pki");
    testkit::installClientCredentials(context.pki, context.root);
}

void removeSandbox(const Context& context) {
    std::error_code ignored;
    std::filesystem::remove_all(context.root, ignored);
}

std::string runProgram(const std::vector<std::string>& argv, int* status) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = 0;
    int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        ::close(out[0]);
        throw std::runtime_error("cannot start " + argv[0]);
    }
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t count = ::read(out[0], buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(out[0]);
    int waitStatus = 0;
    ::waitpid(pid, &waitStatus, 0);
    *status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    return text;
}

std::map<std::string, double> parseKeyValues(const std::string& text) {
    std::map<std::string, double> values;
    std::istringstream lines(text);
    std::string key;
    double value = 0;
    while (lines >> key >> value) {
        values[key] = value;
    }
    return values;
}

DataEventHeader* sampleAlert() {
    static sim::AlertRecord* record = [] {
        sim::AlertSpec spec;
        spec.severity = 2;
        spec.eventId = 2417;
        spec.messageId = "PSU0003";
        spec.message = "The power input for power supply 1 is lost.";
        spec.args = {"1"};
        spec.fqdd = "System.Embedded.1";
        spec.memberId = 1;
        return new sim::AlertRecord(spec);
    }();
    return record->header();
}

FifoDrain::FifoDrain(const std::string& path) {
    if (::mkfifo(path.c_str(), 0660) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot create " + path);
    }
    // Opened for reading and writing: never blocks, and never sees end-of-file.
    fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd_ < 0 || ::pipe2(wake_, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot open " + path);
    }
    thread_ = std::thread([this] {
        char buffer[65536];
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        while (::poll(fds, 2, -1) >= 0 && (fds[1].revents & POLLIN) == 0) {
            if ((fds[0].revents & POLLIN) != 0) {
                ssize_t count = ::read(fd_, buffer, sizeof buffer);
                if (count > 0) {
                    bytes_.fetch_add(count, std::memory_order_relaxed);
                }
            }
        }
    });
}

FifoDrain::~FifoDrain() {
    (void)!::write(wake_[1], "x", 1);
    thread_.join();
    ::close(fd_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

} // namespace rfevent::bench
