#include "base/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <exception>

#include "base/fd.h"

namespace rfevent {

UniqueFile openForReading(const char* path, bool noFollow) {
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC | (noFollow ? O_NOFOLLOW : 0)));
    if (!fd.valid()) {
        return nullptr;
    }
    UniqueFile file(::fdopen(fd.get(), "rb"));
    if (file != nullptr) {
        (void)fd.release(); // the stream owns it now
    }
    return file;
}

namespace {

FileReadOutcome failedRead(FileReadStep step, long size, std::string& text) {
    const int error = errno;
    text.clear();
    return FileReadOutcome{step, error != 0 ? error : EIO, size};
}

// Appends what is left to read on fd to text, straight into the string (no buffer on the
// caller's stack), continuing after interruptions, until the end of the file or until text
// holds limit bytes. Room reserved beforehand is used before the string grows, and growing
// throws when memory runs out. The errno of a failed read, or 0.
int readToEnd(int fd, std::string& text, std::size_t limit) {
    constexpr std::size_t kStep = 4096;
    while (text.size() < limit) {
        const std::size_t used = text.size();
        text.resize(std::min(limit, std::max(text.capacity(), used + kStep)));
        const ssize_t count = ::read(fd, &text[used], text.size() - used);
        const int error = errno;
        text.resize(used + static_cast<std::size_t>(count > 0 ? count : 0));
        if (count == 0) {
            break;
        }
        if (count < 0 && error != EINTR) {
            return error;
        }
    }
    return 0;
}

// The size of the file open on fd, its start sought again for the read.
FileReadOutcome seekSize(int fd, std::string& text) {
    errno = 0;
    const off_t end = ::lseek(fd, 0, SEEK_END);
    if (end < 0) {
        return failedRead(FileReadStep::Seek, -1, text);
    }
    // Through off_t, so that a 32-bit build sees a size beyond 2 GiB as too large rather than
    // as a wrong small number.
    if (end > static_cast<off_t>(LONG_MAX)) {
        errno = EFBIG;
        return failedRead(FileReadStep::Size, -1, text);
    }
    const long size = static_cast<long>(end);
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        return failedRead(FileReadStep::Seek, size, text);
    }
    return FileReadOutcome{FileReadStep::Done, 0, size};
}

// Everything from the current position of fd to the end of its file.
FileReadOutcome readOpenFile(int fd, std::string& text) {
    text.clear();
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return failedRead(FileReadStep::Read, -1, text);
    }
    if (S_ISREG(status.st_mode) && status.st_size > 0) {
        text.reserve(static_cast<std::size_t>(status.st_size));
    }
    const int error = readToEnd(fd, text, text.max_size());
    if (error != 0) {
        errno = error;
        return failedRead(FileReadStep::Read, -1, text);
    }
    return FileReadOutcome{FileReadStep::Done, 0, static_cast<long>(text.size())};
}

} // namespace

FileReadOutcome readWholeFile(const char* path, std::string& text) {
    text.clear();
    errno = 0;
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return failedRead(FileReadStep::Open, -1, text);
    }
    return readOpenFile(fd.get(), text);
}

bool readWholeFileLogged(std::FILE* file, std::string& text, SourceSpot spot,
                         const WholeFileTexts& texts) {
    text.clear();
    const int fd = ::fileno(file);
    const FileReadOutcome sized = seekSize(fd, text);
    if (sized.step == FileReadStep::Seek && sized.size == -1) { // its end
        RF_LOG_AT(spot, kLogError, "[%s():%d]File operation seek failed in local export function ");
        return false;
    }
    if (texts.logSize) {
        RF_LOG_AT(spot, kLogInfo, "[%s():%d]lSize :%ld", sized.size);
    }
    if (sized.step == FileReadStep::Size) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.ftellFailed);
        return false;
    }
    if (sized.step == FileReadStep::Seek) { // its start again
        RF_LOG_AT(spot, kLogError, "[%s():%d]File operation seek failed in local export function ");
        return false;
    }
    const auto size = static_cast<std::size_t>(sized.size);
    int error = 0;
    try {
        text.reserve(size);
        error = readToEnd(fd, text, size);
    } catch (const std::exception&) { // std::bad_alloc, or std::length_error beyond max_size()
        RF_LOG_AT(spot, kLogError,
                  "[%s():%d]File memory allocation failed in local export function ");
        return false;
    }
    if (error != 0 || text.size() != size) { // a failed read, or the file ended early
        RF_LOG_AT(spot, kLogError, "[%s():%d]File could not be read in local export function ");
        text.clear();
        return false;
    }
    return true;
}

} // namespace rfevent
