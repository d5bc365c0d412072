// Where the stand-alone platform keeps its files: $RFEVENT_ROOT/var/lib/rfevent/.
#ifndef RFEVENT_PLATFORM_STANDALONE_DATA_DIR_H
#define RFEVENT_PLATFORM_STANDALONE_DATA_DIR_H

#include <string>

namespace rfevent::platform {

// The platform's descriptors are close-on-exec and never a standard stream: fd when it is above
// standard error, else a close-on-exec copy above it (fd closed; -1 when no copy could be made).
int keptAboveStandardStreams(int fd);

// Full path of a file in the platform's data folder; the root is read on every call.
std::string dataFile(const char* name);

// The whole content of path into text; false when it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& text);

// Replaces path's content atomically: writes a temporary file beside it and renames it.
bool replaceFile(const std::string& path, const std::string& content);

// Appends one line (a newline is added) with a single write; false on failure.
bool appendLine(const std::string& path, const std::string& line);

} // namespace rfevent::platform

#endif
