// An allocation-failure shim, preloaded (LD_PRELOAD) into a host process: while switched on,
// malloc, calloc, realloc and the aligned allocations fail for one call in N on the threads
// whose names start with one of the chosen prefixes (threads inherit their creator's name, so
// the threads a chosen thread starts are chosen too). operator new allocates through malloc, so
// it fails with them. Every other thread, and every call while the switch is off, goes straight
// to the C library's allocator.
//
// The host finds the switch with dlsym(RTLD_DEFAULT, "allocfail_switch"). The shim allocates
// nothing of its own and holds no thread-local state: its decision is made from the thread's
// name and one shared counter.
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

constexpr size_t kPrefixRoom = 128;

std::atomic<unsigned> g_oneIn{0}; // 0: off
std::atomic<uint64_t> g_draws{0};
std::atomic<uint64_t> g_failures{0};
uint64_t g_seed = 0;
char g_prefixes[kPrefixRoom]; // comma-separated thread-name prefixes

// The counter's draw, mixed with the seed (the finaliser of splitmix64).
uint64_t mix(uint64_t value) {
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

// Whether name starts with one of the comma-separated prefixes.
bool chosenName(const char* name) {
    const char* prefix = g_prefixes;
    while (*prefix != '\0') {
        size_t length = 0;
        while (prefix[length] != '\0' && prefix[length] != ',') {
            ++length;
        }
        if (length > 0 && std::strncmp(name, prefix, length) == 0) {
            return true;
        }
        prefix += length;
        if (*prefix == ',') {
            ++prefix;
        }
    }
    return false;
}

bool failThisCall() {
    const unsigned oneIn = g_oneIn.load(std::memory_order_acquire);
    if (oneIn == 0) {
        return false;
    }
    char name[17] = {};
    if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0 || !chosenName(name)) {
        return false;
    }
    const uint64_t draw = g_draws.fetch_add(1, std::memory_order_relaxed);
    if (mix(g_seed ^ draw) % oneIn != 0) {
        return false;
    }
    g_failures.fetch_add(1, std::memory_order_relaxed);
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" {

// Turns failures on (oneIn > 0: one call in oneIn fails on the threads named by prefixes, a
// comma-separated list of thread-name prefixes) or off (oneIn 0). Returns the number of
// allocations failed so far.
__attribute__((visibility("default"))) unsigned long long
allocfail_switch(unsigned oneIn, unsigned long long seed, const char* prefixes) {
    if (oneIn != 0) {
        g_oneIn.store(0, std::memory_order_release);
        std::strncpy(g_prefixes, prefixes != nullptr ? prefixes : "", kPrefixRoom - 1);
        g_seed = seed;
    }
    g_oneIn.store(oneIn, std::memory_order_release);
    return g_failures.load(std::memory_order_relaxed);
}

__attribute__((visibility("default"))) void* malloc(size_t size) {
    return failThisCall() ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
    return failThisCall() ? nullptr : __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void* realloc(void* old, size_t size) {
    // A shrinking or freeing realloc is left alone: callers rarely expect those to fail.
    if (old != nullptr && size != 0 && failThisCall()) {
        return nullptr;
    }
    if (old == nullptr && failThisCall()) {
        return nullptr;
    }
    return __libc_realloc(old, size);
}

__attribute__((visibility("default"))) int posix_memalign(void** out, size_t alignment,
                                                          size_t size) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0 || alignment % sizeof(void*) != 0) {
        return EINVAL;
    }
    if (failThisCall()) {
        return ENOMEM;
    }
    void* block = __libc_memalign(alignment, size);
    if (block == nullptr) {
        return ENOMEM;
    }
    *out = block;
    return 0;
}

__attribute__((visibility("default"))) void* aligned_alloc(size_t alignment, size_t size) {
    return failThisCall() ? nullptr : __libc_memalign(alignment, size);
}

__attribute__((visibility("default"))) void* memalign(size_t alignment, size_t size) {
    return failThisCall() ? nullptr : __libc_memalign(alignment, size);
}

} // extern "C"
