// Owned stdio files and the one way the plug-in reads a whole file into memory.
#ifndef RFEVENT_BASE_FILE_H
#define RFEVENT_BASE_FILE_H

#include <cstdio>
#include <string>

#include "base/log.h"
#include "base/owned.h"

namespace rfevent {

using UniqueFile = Owned<std::FILE, ::fclose>;

// Opens path for reading with close-on-exec; null when it cannot be opened. With noFollow a
// symbolic link at path is refused, so a link planted there cannot redirect the read.
UniqueFile openForReading(const char* path, bool noFollow = false);

// The step of a whole-file read that failed, or Done.
enum class FileReadStep {
    Done,
    Open, // the file could not be opened (only when read by path)
    Seek, // its end, or its start again, could not be sought (the logged form)
    Size, // its size does not fit a long: beyond 2 GiB on a 32-bit build (the logged form)
    Read, // a read failed
};

struct FileReadOutcome {
    FileReadStep step = FileReadStep::Done;
    int error = 0;  // errno of the failed step
    long size = -1; // the bytes read, or the size sought; -1 when not known
    bool done() const { return step == FileReadStep::Done; }
};

// The one whole-file read: everything in the file at path (opened read-only with close-on-exec)
// read straight into text (no buffer on the caller's stack), which is replaced, and left empty
// on a failure. Reads resume after interruptions. Any content reads as it is, NUL bytes
// included. A file too large for memory throws, as any allocation does (std::bad_alloc or
// std::length_error).
FileReadOutcome readWholeFile(const char* path, std::string& text);

// How a logged whole-file read reports itself: the size failure text differs between callers,
// and not every caller logs the size.
struct WholeFileTexts {
    const char* ftellFailed; // without the "[%s():%d]" head
    bool logSize;            // "lSize :%ld" at level 5
};

// The read of an open stream whose size is sought first: exactly that many bytes from its
// start, with each failure logged at level 2 under spot (a stream that cannot be sought, a
// file too large for memory, a failed read, a file that ends early); false on a failure.
bool readWholeFileLogged(std::FILE* file, std::string& text, SourceSpot spot,
                         const WholeFileTexts& texts);

} // namespace rfevent

#endif
