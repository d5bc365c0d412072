// orvaprintf: the platform's logger. One line per call, written with a single write so that
// lines from several threads never interleave. Lines go to the file named by
// RFEVENT_LOG_FILE (appended) or to stderr, when their level is at most RFEVENT_LOG_LEVEL
// (default 2, errors only; read once, at the first line).
#include "platform/platform.h"
#include "platform/standalone/data_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

// Read once, at the first line: every call of the plug-in's many filtered-out debug lines
// would otherwise scan the environment.
int configuredLevel() {
    static const int level = [] {
        const char* text = std::getenv("RFEVENT_LOG_LEVEL");
        if (text == nullptr || *text == '\0') {
            return 2;
        }
        return static_cast<int>(std::strtol(text, nullptr, 10));
    }();
    return level;
}

// The configured level once it was read; until then the highest level, so that the first lines
// go on to the full check, which reads it.
std::atomic<int> g_knownLevel{INT_MAX};

// The log file stays open between lines; it is reopened when RFEVENT_LOG_FILE changes.
class LogSink {
  public:
    void write(const char* line, size_t length) {
        const char* file = std::getenv("RFEVENT_LOG_FILE");
        if (file == nullptr || *file == '\0') {
            (void)!::write(STDERR_FILENO, line, length);
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (fd_ < 0 || std::strncmp(path_, file, sizeof path_) != 0) {
            if (fd_ >= 0) {
                ::close(fd_);
            }
            // Kept in place: writing a line never allocates, so a line about an allocation
            // failure still gets written.
            std::strncpy(path_, file, sizeof path_ - 1);
            fd_ = rfevent::platform::keptAboveStandardStreams(
                ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        }
        if (fd_ >= 0) {
            (void)!::write(fd_, line, length);
        }
    }

  private:
    std::mutex mutex_;
    char path_[4096] = {};
    int fd_ = -1;
};

LogSink& sink() {
    static LogSink* instance = new LogSink; // never destroyed: used until the very end
    return *instance;
}

// Formats and writes one line of a level up to the configured one. Kept out of orvaprintf so that a
// line whose level is filtered out (most of the plug-in's lines) costs only the check: no
// line buffer, no saved registers.
__attribute__((noinline)) int writeLine(int level, int module, const char* format, va_list args) {
    const int configured = configuredLevel();
    g_knownLevel.store(configured, std::memory_order_relaxed);
    if (format == nullptr || level > configured) {
        return 0;
    }
    char line[8192];
    int head = std::snprintf(line, sizeof line, "<%d> [%d] ", level, module);
    int body = std::vsnprintf(line + head, sizeof line - static_cast<size_t>(head), format, args);
    size_t length = static_cast<size_t>(head);
    if (body > 0) {
        length += std::min(static_cast<size_t>(body), sizeof line - static_cast<size_t>(head) - 1);
    }
    // Messages often carry their own trailing newline; keep exactly one.
    while (length > 0 && line[length - 1] == '\n') {
        --length;
    }
    line[length++] = '\n';
    sink().write(line, length);
    return static_cast<int>(length);
}

} // namespace

extern "C" int orvaprintf(int level, int module, const char* format, ...) {
    // A line above the level is dropped unread; a missing format, only once it would be written.
    if (level > g_knownLevel.load(std::memory_order_relaxed)) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    const int length = writeLine(level, module, format, args);
    va_end(args);
    return length;
}
