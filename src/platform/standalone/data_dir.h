// Where the stand-alone platform keeps its files: $RFEVENT_ROOT/var/lib/rfevent/.
#ifndef RFEVENT_PLATFORM_STANDALONE_DATA_DIR_H
#define RFEVENT_PLATFORM_STANDALONE_DATA_DIR_H

#include <string>

namespace rfevent::platform {

// Full path of a file in the platform's data folder; the root is read on every call.
std::string dataFile(const char* name);

// Replaces path's content atomically: writes a temporary file beside it and renames it.
bool replaceFile(const std::string& path, const std::string& content);

// Appends one line (a newline is added) with a single write; false on failure.
bool appendLine(const std::string& path, const std::string& line);

} // namespace rfevent::platform

#endif
