#include "delivery/session_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <type_traits>

#include "base/fd.h"
#include "base/paths.h"

namespace rfevent {

namespace {

// A share handle whose sessions were dropped stays until the last transfer still attached to it
// is cleaned up; these are the places where it waits.
constexpr int kRetiredShares = 4;

// libcurl takes one lock per kind of shared data and never one it already holds. The locks
// serve every share handle of the cache.
std::mutex g_dataLocks[CURL_LOCK_DATA_LAST];

void lockData(CURL* handle, curl_lock_data data, curl_lock_access access, void* user) {
    (void)handle;
    (void)access;
    (void)user;
    g_dataLocks[data].lock();
}

void unlockData(CURL* handle, curl_lock_data data, void* user) {
    (void)handle;
    (void)user;
    g_dataLocks[data].unlock();
}

struct SessionCache {
    std::mutex mutex; // guards every member below
    bool open = false;
    CURLSH* current = nullptr;     // where transfers resume from and store to
    bool labelled = false;         // credentials holds what current's sessions were made with
    std::uint64_t credentials = 0; // fingerprint of the certificate, key and CA bundle files
    CURLSH* retired[kRetiredShares] = {};
};

// Worker threads are never stopped: the cache must stay usable while the process exits, so it
// has nothing to destroy.
static_assert(std::is_trivially_destructible<SessionCache>::value,
              "the session cache must outlive static destruction");
SessionCache g_cache;

// 64-bit FNV-1a over one more piece of a file.
std::uint64_t hashBytes(std::uint64_t hash, const unsigned char* data, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        hash ^= data[i];
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

// Folds the contents of path into hash; a file that cannot be read counts as its error code.
std::uint64_t hashFile(std::uint64_t hash, const char* path) {
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        const auto error = static_cast<unsigned char>(errno);
        return hashBytes(hash, &error, 1);
    }
    unsigned char buffer[4096];
    std::uint64_t length = 0;
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        hash = hashBytes(hash, buffer, static_cast<std::size_t>(count));
        length += static_cast<std::uint64_t>(count);
    }
    // The length ends each file's part, so moving bytes from one file to the next shows.
    unsigned char lengthBytes[sizeof length];
    std::memcpy(lengthBytes, &length, sizeof length);
    return hashBytes(hash, lengthBytes, sizeof lengthBytes);
}

// What the files a handshake reads hold now. libcurl tells sessions apart by these files'
// paths only, and the paths never change.
std::uint64_t credentialFingerprint() {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    hash = hashFile(hash, fixedPath(FixedPath::ClientCertificate));
    hash = hashFile(hash, fixedPath(FixedPath::ClientKey));
    return hashFile(hash, fixedPath(FixedPath::ServerCaBundle));
}

CURLSH* newShare() {
    CURLSH* share = curl_share_init();
    if (share == nullptr) {
        return nullptr;
    }
    if (curl_share_setopt(share, CURLSHOPT_LOCKFUNC, lockData) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, unlockData) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        curl_share_cleanup(share);
        return nullptr;
    }
    return share;
}

// Releases every retired share no transfer is attached to any more. Called with the cache's
// mutex held: no transfer can attach to a retired share, so one found idle stays idle.
void releaseIdleShares() {
    for (CURLSH*& share : g_cache.retired) {
        if (share != nullptr && curl_share_cleanup(share) == CURLSHE_OK) {
            share = nullptr;
        }
    }
}

// Moves the current share to the retired ones; false when every place is taken.
bool retireCurrent() {
    for (CURLSH*& share : g_cache.retired) {
        if (share == nullptr) {
            share = g_cache.current;
            g_cache.current = nullptr;
            g_cache.labelled = false;
            return true;
        }
    }
    return false;
}

// The share a transfer made with these credential files may use; null when there is none.
CURLSH* shareFor(std::uint64_t credentials) {
    if (!g_cache.open) {
        return nullptr;
    }
    releaseIdleShares();
    if (g_cache.current != nullptr && g_cache.labelled && g_cache.credentials != credentials &&
        !retireCurrent()) {
        return nullptr;
    }
    if (g_cache.current == nullptr) {
        g_cache.current = newShare();
    }
    if (g_cache.current != nullptr && !g_cache.labelled) {
        g_cache.credentials = credentials;
        g_cache.labelled = true;
    }
    return g_cache.current;
}

} // namespace

void createSessionCache() {
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    if (g_cache.open) {
        return;
    }
    g_cache.open = true;
    if (g_cache.current == nullptr) {
        g_cache.current = newShare();
        g_cache.labelled = false;
    }
}

void releaseSessionCache() {
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    g_cache.open = false;
    if (g_cache.current != nullptr &&
        (curl_share_cleanup(g_cache.current) == CURLSHE_OK || retireCurrent())) {
        g_cache.current = nullptr;
    }
    g_cache.labelled = false;
    // A share some transfer is still attached to cannot be released; it stays retired.
    releaseIdleShares();
}

void attachSessionCache(CURL* curl) {
    const std::uint64_t credentials = credentialFingerprint();
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    // Attached under the mutex, so no retired share is released between the choice and the
    // attachment. A null share detaches curl from any share it was attached to.
    (void)curl_easy_setopt(curl, CURLOPT_SHARE, shareFor(credentials));
}

} // namespace rfevent
