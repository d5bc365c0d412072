// orvaprintf: the platform's logger. One line per call, written with a single write so that
// lines from several threads never interleave. Lines go to the file named by
// RFEVENT_LOG_FILE (appended) or to stderr, when their level is at most RFEVENT_LOG_LEVEL
// (default 2, errors only; read once, at the first line).
#include "platform/platform.h"
#include "platform/standalone/data_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
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

// A line is at most kLineBytes long, terminator included; longer ones are cut. Most lines fit
// the small buffer on the caller's stack; a longer one is formatted again on the heap, so a
// caller with a small stack never pays for the longest line.
constexpr size_t kLineBytes = 8192;
constexpr size_t kShortLineBytes = 512;

// Formats "<level> [module] " and the message into line (of size bytes); the line's length as
// snprintf counts it (possibly more than fits).
size_t formatLine(char* line, size_t size, int level, int module, const char* format,
                  va_list args) {
    const int head = std::snprintf(line, size, "<%d> [%d] ", level, module);
    const int body = std::vsnprintf(line + head, size - static_cast<size_t>(head), format, args);
    return static_cast<size_t>(head) + static_cast<size_t>(body > 0 ? body : 0);
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
    char shortLine[kShortLineBytes];
    va_list again;
    va_copy(again, args);
    size_t length = formatLine(shortLine, sizeof shortLine, level, module, format, args);
    char* line = shortLine;
    size_t size = sizeof shortLine;
    std::unique_ptr<char, decltype(&std::free)> longLine(nullptr, std::free);
    if (length >= sizeof shortLine) {
        size = std::min(length + 1, kLineBytes);
        longLine.reset(static_cast<char*>(std::malloc(size)));
        if (longLine != nullptr) {
            line = longLine.get();
            (void)formatLine(line, size, level, module, format, again);
        } else {
            size = sizeof shortLine; // no memory: the line is cut at the short buffer
        }
    }
    va_end(again);
    length = std::min(length, size - 1);
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
