// Owned handles of the C libraries: a std::unique_ptr whose deleter is the library's own
// release function, so every handle is released exactly once, on every path.
#ifndef RFEVENT_BASE_OWNED_H
#define RFEVENT_BASE_OWNED_H

#include <memory>

namespace rfevent {

// Calls Release on a handle that is not null (std::unique_ptr never passes null).
template <auto Release> struct ReleaseWith {
    template <typename T> void operator()(T* handle) const noexcept { (void)Release(handle); }
};

// A T* released with Release, e.g. Owned<sqlite3, sqlite3_close>.
template <typename T, auto Release> using Owned = std::unique_ptr<T, ReleaseWith<Release>>;

} // namespace rfevent

#endif
