#include "pipes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace rfevent::sim {

std::string PipeWriter::write(const char* controllerPath, const std::string& bytes,
                              std::chrono::milliseconds timeout) const {
    std::string path = sandbox_.path(controllerPath);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int fd = -1;
    int lastError = 0;
    for (;;) {
        struct stat info {};
        if (::stat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode)) {
            // Non-blocking: fails with ENXIO until the plug-in's thread holds the read end.
            fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd >= 0) {
                break;
            }
            lastError = errno;
        } else {
            lastError = ENOENT;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::string("no reader on ") + controllerPath + " (" +
                   (lastError == ENXIO
                        ? "the pipe exists, but no thread reads it"
                        : std::error_code(lastError, std::generic_category()).message()) +
                   ")";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) {
        ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    }
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    int writeError = errno;
    ::close(fd);
    if (written != static_cast<ssize_t>(bytes.size())) {
        return std::string("short write to ") + controllerPath + ": " +
               (written < 0 ? std::error_code(writeError, std::generic_category()).message()
                            : std::to_string(written) + " bytes");
    }
    return "";
}

std::string PipeWriter::announceReport(const std::string& name,
                                       std::chrono::milliseconds timeout) const {
    std::string message = name + "|";
    message.push_back('\0');
    return write(paths::kTelemetryFifo, message, timeout);
}

std::string PipeWriter::sendTestReport(const std::string& json,
                                       std::chrono::milliseconds timeout) const {
    return write(paths::kTestReportFifo, json, timeout);
}

std::string PipeWriter::requestReplay(const std::string& lastEventId, const std::string& filter,
                                      std::chrono::milliseconds timeout) const {
    return write(paths::kSseInfraFifo, lastEventId + "|" + filter, timeout);
}

} // namespace rfevent::sim
