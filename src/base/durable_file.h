// The one way the plug-in rewrites a file it keeps: whole, atomically and durably.
#ifndef RFEVENT_BASE_DURABLE_FILE_H
#define RFEVENT_BASE_DURABLE_FILE_H

#include <sys/types.h>

#include <string>

namespace rfevent {

// The step of a rewrite that failed, or Done.
enum class RewriteStep {
    Done,
    Temporary,   // no temporary file could be created beside the target
    Permissions, // the temporary file could not be given the target's mode, owner and group
    Write,       // writing the content
    Flush,       // fsync of the temporary file, or closing it
    Rename,      // renaming it over the target
    FolderFlush, // fsync of the folder after the rename: the new content is in place, but a
                 // power cut may still take it back
};

struct RewriteOutcome {
    RewriteStep step = RewriteStep::Done;
    int error = 0;      // errno of the failed step
    std::string target; // the file replaced: path, or the file its link points to
    bool done() const { return step == RewriteStep::Done; }
};

// Replaces the file at path with content so that a crash or a power cut at any instant leaves
// either the old or the new content: the content goes to a temporary file in the target's
// folder, which is flushed, renamed over the target, and the folder is flushed. A target that
// is a symbolic link is followed: the file it points to is replaced, in that file's folder,
// and the link stays.
//
// The new file keeps the old one's mode, owner and group; a file that did not exist gets
// newFileMode exactly, whatever the process's umask. When the owner and group cannot be kept
// (a host that is not root and does not own the file), nothing is replaced: handing the file
// to another owner would lock its other readers and writers out of it.
//
// Nothing is logged; a failure before the rename removes the temporary file and leaves the
// target as it was.
RewriteOutcome rewriteFileDurably(const std::string& path, const std::string& content,
                                  mode_t newFileMode);

// The same rewrite without the two flushes: still whole and atomic for every reader, but a
// power cut may lose it. For files on a RAM file system, which mean nothing after a restart.
RewriteOutcome rewriteFileAtomically(const std::string& path, const std::string& content,
                                     mode_t newFileMode);

} // namespace rfevent

#endif
