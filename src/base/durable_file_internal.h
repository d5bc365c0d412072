// Test-only access to the calls a durable rewrite makes, so a test can watch their order or
// make one of them fail.
#ifndef RFEVENT_BASE_DURABLE_FILE_INTERNAL_H
#define RFEVENT_BASE_DURABLE_FILE_INTERNAL_H

#include <sys/types.h>

#include <cstddef>

namespace rfevent {

struct RewriteCalls {
    int (*makeTemporary)(char* pattern); // mkostemp with close-on-exec
    int (*openFolder)(const char* path); // a folder, read-only, for its fsync
    int (*fchmod)(int fd, mode_t mode);
    int (*fchown)(int fd, uid_t owner, gid_t group);
    bool (*writeAll)(int fd, const void* data, std::size_t length);
    int (*fsync)(int fd);
    int (*close)(int fd);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
};

// The calls every rewrite goes through; the real ones unless a test swapped some.
RewriteCalls& rewriteCalls();

// The real calls, for a test to restore or to call through.
const RewriteCalls& realRewriteCalls();

} // namespace rfevent

#endif
