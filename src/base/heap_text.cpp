#include "base/heap_text.h"

#include <cstdlib>
#include <cstring>

namespace rfevent {

void HeapFree::operator()(char* text) const noexcept {
    std::free(text);
}

HeapText heapBlock(std::size_t size) {
    return HeapText(static_cast<char*>(std::malloc(size == 0 ? 1 : size)));
}

HeapText heapCopy(std::string_view text) {
    HeapText copy = heapBlock(text.size() + 1);
    if (copy) {
        std::memcpy(copy.get(), text.data(), text.size());
        copy.get()[text.size()] = '\0';
    }
    return copy;
}

} // namespace rfevent
