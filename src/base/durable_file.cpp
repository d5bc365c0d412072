#include "base/durable_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "base/durable_file_internal.h"
#include "base/fd.h"
#include "base/heap_text.h"

namespace rfevent {

namespace {

int makeTemporary(char* pattern) {
    return ::mkostemp(pattern, O_CLOEXEC);
}

int openFolder(const char* path) {
    return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

const RewriteCalls kRealCalls = {makeTemporary, openFolder, ::fchmod, ::fchown, writeAll,
                                 ::fsync,       ::close,    ::rename, ::unlink};

RewriteCalls g_calls = kRealCalls;

// The file a rewrite replaces: the target of a link, or path itself when there is none (or
// it does not exist yet).
std::string resolvedTarget(const std::string& path) {
    std::string target = path;
    if (const HeapText resolved{::realpath(path.c_str(), nullptr)}) {
        target = resolved.get();
    }
    return target;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// fsync, resumed after an interruption; false (errno set) when it failed.
bool flush(int fd) {
    int status = 0;
    do {
        status = g_calls.fsync(fd);
    } while (status != 0 && errno == EINTR);
    return status == 0;
}

RewriteOutcome failed(RewriteStep step) {
    return RewriteOutcome{step, errno, {}};
}

// Gives the temporary file the old file's mode, owner and group, or newFileMode for a new file.
bool copyPermissions(int fd, const std::string& target, mode_t newFileMode) {
    struct stat old;
    if (::stat(target.c_str(), &old) != 0) {
        return g_calls.fchmod(fd, newFileMode) == 0;
    }
    return g_calls.fchown(fd, old.st_uid, old.st_gid) == 0 &&
           g_calls.fchmod(fd, old.st_mode & 07777) == 0;
}

// Writes and (when durable) flushes the temporary file; Done or the step that failed.
RewriteOutcome fillTemporary(int fd, const std::string& target, const std::string& content,
                             mode_t newFileMode, bool durable) {
    if (!copyPermissions(fd, target, newFileMode)) {
        return failed(RewriteStep::Permissions);
    }
    if (!g_calls.writeAll(fd, content.data(), content.size())) {
        return failed(RewriteStep::Write);
    }
    if (durable && !flush(fd)) {
        return failed(RewriteStep::Flush);
    }
    return RewriteOutcome{};
}

RewriteOutcome flushFolder(const std::string& folder) {
    UniqueFd fd(g_calls.openFolder(folder.c_str()));
    if (!fd.valid()) {
        return failed(RewriteStep::FolderFlush);
    }
    RewriteOutcome outcome;
    if (!flush(fd.get())) {
        outcome = failed(RewriteStep::FolderFlush);
    }
    g_calls.close(fd.release());
    return outcome;
}

// The rewrite; durable adds the flushes of the temporary file and of the folder.
RewriteOutcome rewriteFile(const std::string& path, const std::string& content, mode_t newFileMode,
                           bool durable) {
    const std::string target = resolvedTarget(path);
    std::string temporary = target + ".tmp.XXXXXX";
    UniqueFd fd(g_calls.makeTemporary(temporary.data()));
    if (!fd.valid()) {
        return failed(RewriteStep::Temporary);
    }
    RewriteOutcome outcome = fillTemporary(fd.get(), target, content, newFileMode, durable);
    if (g_calls.close(fd.release()) != 0 && outcome.done()) {
        outcome = failed(RewriteStep::Flush);
    }
    if (outcome.done() && g_calls.rename(temporary.c_str(), target.c_str()) != 0) {
        outcome = failed(RewriteStep::Rename);
    }
    if (outcome.done()) {
        if (durable) {
            outcome = flushFolder(folderOf(target));
        }
    } else {
        g_calls.unlink(temporary.c_str());
    }
    outcome.target = target;
    return outcome;
}

} // namespace

RewriteCalls& rewriteCalls() {
    return g_calls;
}

const RewriteCalls& realRewriteCalls() {
    return kRealCalls;
}

RewriteOutcome rewriteFileDurably(const std::string& path, const std::string& content,
                                  mode_t newFileMode) {
    return rewriteFile(path, content, newFileMode, true);
}

RewriteOutcome rewriteFileAtomically(const std::string& path, const std::string& content,
                                     mode_t newFileMode) {
    return rewriteFile(path, content, newFileMode, false);
}

} // namespace rfevent
