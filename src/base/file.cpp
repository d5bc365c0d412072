#include "base/file.h"

#include <fcntl.h>
#include <sys/types.h>

#include <climits>
#include <cstdlib>

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

// The stream's position as a long, or -1 as ftell gives it. Through off_t, so that a 32-bit
// build sees a position beyond 2 GiB as too large rather than as a wrong small number.
long streamPosition(std::FILE* file) {
    off_t position = ::ftello(file);
    if (position < 0 || position > static_cast<off_t>(LONG_MAX)) {
        return -1;
    }
    return static_cast<long>(position);
}

} // namespace

char* readWholeFile(std::FILE* file, long* size, SourceSpot spot, const WholeFileTexts& texts) {
    if (::fseeko(file, 0, SEEK_END) != 0) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]File operation seek failed in local export function ");
        return nullptr;
    }
    *size = streamPosition(file);
    if (texts.logSize) {
        RF_LOG_AT(spot, kLogInfo, "[%s():%d]lSize :%ld", *size);
    }
    if (*size == -1) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.ftellFailed);
        return nullptr;
    }
    if (::fseeko(file, 0, SEEK_SET) != 0) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]File operation seek failed in local export function ");
        return nullptr;
    }
    const std::size_t length = static_cast<std::size_t>(*size);
    char* buffer = static_cast<char*>(std::calloc(length + 1, 1));
    if (buffer == nullptr) {
        RF_LOG_AT(spot, kLogError,
                  "[%s():%d]File memory allocation failed in local export function ");
        return nullptr;
    }
    if (std::fread(buffer, 1, length, file) != length) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]File could not be read in local export function ");
        std::free(buffer);
        return nullptr;
    }
    return buffer;
}

} // namespace rfevent
