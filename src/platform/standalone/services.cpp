// Telemetry service client, file utilities and numeric identifiers of the stand-alone platform.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "platform/platform.h"
#include "platform/standalone/data_dir.h"

extern "C" {

// Records the registration; the host simulator or a test plays the telemetry service.
int telemetrySvc_registerForReportTriggers(const char* fifoPath, int id) {
    std::string line = std::string(fifoPath ? fifoPath : "") + " " + std::to_string(id);
    rfevent::platform::appendLine(rfevent::platform::dataFile("report-triggers.log"), line);
    return 0;
}

int utl_trylock_write(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    int fd = rfevent::platform::keptAboveStandardStreams(
        ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (fd < 0) {
        return -1;
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &lock) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int utl_close_unlock(int fd) {
    if (fd < 0) {
        return -1;
    }
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    int unlocked = ::fcntl(fd, F_SETLK, &lock);
    int closed = ::close(fd);
    return (unlocked == 0 && closed == 0) ? 0 : -1;
}

int utl_trunc_file(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    return ::truncate(path, 0) == 0 ? 0 : -1;
}

int utl_echo_write(const char* text, size_t length, const char* path, int create, int truncate) {
    (void)create;
    (void)truncate;
    if (text == nullptr || path == nullptr) {
        return -1;
    }
    return rfevent::platform::replaceFile(path, std::string(text, length)) ? 0 : -1;
}

} // extern "C"

NumericDynamicSegment::NumericDynamicSegment() = default;
NumericDynamicSegment::~NumericDynamicSegment() = default;

// The stand-alone platform keeps no numeric identifiers: the text is left as it is.
int NumericDynamicSegment::FormatResponseWithNumericId(std::string& text) {
    (void)text;
    return 1;
}
