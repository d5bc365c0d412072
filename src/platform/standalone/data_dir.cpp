#include "platform/standalone/data_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace rfevent::platform {

int keptAboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

std::string dataFile(const char* name) {
    const char* root = std::getenv("RFEVENT_ROOT");
    std::string path = root ? root : "";
    path += "/var/lib/rfevent/";
    path += name;
    return path;
}

static bool writeAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t n = ::write(fd, data, length);
        if (n < 0) {
            return false;
        }
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool readWholeFile(const std::string& path, std::string& text) {
    int fd = keptAboveStandardStreams(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        return false;
    }
    text.clear();
    char buffer[4096];
    ssize_t n = 0;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return n == 0;
}

bool replaceFile(const std::string& path, const std::string& content) {
    std::string temp = path + ".tmp.XXXXXX";
    int fd = keptAboveStandardStreams(::mkostemp(temp.data(), O_CLOEXEC));
    if (fd < 0) {
        return false;
    }
    bool ok = writeAll(fd, content.data(), content.size());
    ok = (::close(fd) == 0) && ok;
    if (ok) {
        ok = ::rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        ::unlink(temp.c_str());
    }
    return ok;
}

bool appendLine(const std::string& path, const std::string& line) {
    int fd = keptAboveStandardStreams(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (fd < 0) {
        return false;
    }
    std::string text = line + "\n";
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

} // namespace rfevent::platform
