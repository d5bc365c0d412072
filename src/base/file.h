// Owned stdio files and the one way the plug-in reads a whole file into memory.
#ifndef RFEVENT_BASE_FILE_H
#define RFEVENT_BASE_FILE_H

#include <cstdio>
#include <memory>

#include "base/log.h"

namespace rfevent {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// Opens path for reading with close-on-exec; null when it cannot be opened. With noFollow a
// symbolic link at path is refused, so a link planted there cannot redirect the read.
UniqueFile openForReading(const char* path, bool noFollow = false);

// How a whole-file read reports itself: the ftell failure text differs between callers, and
// not every caller logs the size.
struct WholeFileTexts {
    const char* ftellFailed; // without the "[%s():%d]" head
    bool logSize;            // "lSize :%ld" at level 5
};

// Reads the whole file into a zero-filled heap block one byte longer than the file (caller
// frees); *size receives the length. Null on failure, logged at level 2 under spot.
char* readWholeFile(std::FILE* file, long* size, SourceSpot spot, const WholeFileTexts& texts);

} // namespace rfevent

#endif
