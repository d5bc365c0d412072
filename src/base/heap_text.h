// Texts on the C heap: the few interfaces whose signatures hand a malloc'd text to the caller
// (a report looked up in the database, a stored log, a base64 encoding). Such a text is taken
// into a HeapText at the call that receives it, and made only through heapCopy; nothing else
// in the plug-in calls malloc, calloc, strdup or free.
#ifndef RFEVENT_BASE_HEAP_TEXT_H
#define RFEVENT_BASE_HEAP_TEXT_H

#include <cstddef>
#include <memory>
#include <string_view>

namespace rfevent {

// The one deleter of C-heap texts.
struct HeapFree {
    void operator()(char* text) const noexcept;
};

// An owned text released with free().
using HeapText = std::unique_ptr<char, HeapFree>;

// A terminated copy of text on the C heap; empty when the allocation failed. Hand it over with
// release() where a signature returns a text the caller frees.
HeapText heapCopy(std::string_view text);

// An uninitialised block of size bytes on the C heap, for a text written in place; empty when
// the allocation failed.
HeapText heapBlock(std::size_t size);

} // namespace rfevent

#endif
