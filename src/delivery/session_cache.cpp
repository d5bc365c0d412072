#include "delivery/session_cache.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "base/paths.h"
#include "delivery/tls_credentials.h"
#include "delivery/tls_credentials_internal.h"

namespace rfevent {

namespace {

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

// libcurl keeps at most 8 sessions in one share handle and drops the oldest for a ninth: an
// alert to more than 8 destinations, served in turn, would find none of them again. The cache
// therefore spreads the destinations over several share handles by their scheme, host and port
// (libcurl still matches host, port and TLS options within each), made as they are first needed.
constexpr std::size_t kShareGroups = 16;

// A parse of the credentials that cannot stand in for the files may have met a passing
// failure (memory ran short): the contents are parsed again at the next transfer, up to this
// many times in all. After that, the transfers of the generation load the files themselves.
constexpr int kParses = 4;

// The sessions made with one set of credential file contents, and those contents parsed. A
// transfer that uses the parsed credentials is attached to one of the share handles too, so
// once they are all idle nothing refers to the generation any more.
struct Generation {
    CURLSH* shares[kShareGroups] = {};
    bool labelled = false; // the fingerprint is set
    std::uint64_t fingerprint = 0;
    // Every parse made of the contents, the latest last; one that is not usable is kept all
    // the same until the generation is released (a transfer may still hold it).
    std::unique_ptr<TlsCredentials> parses[kParses];
    int parseCount = 0;

    // The latest parse; null when there is none (the TLS library is not libcurl's).
    const TlsCredentials* credentials() const {
        return parseCount > 0 ? parses[parseCount - 1].get() : nullptr;
    }
};

// A generation whose files changed stays until the last transfer attached to it is cleaned up;
// these are the places where it waits.
constexpr int kRetiredGenerations = 4;

struct SessionCache {
    std::mutex mutex; // guards every member below
    bool open = false;
    bool tlsLibraryIsOurs = false;
    Generation* current = nullptr;
    Generation* retired[kRetiredGenerations] = {};
};

// Worker threads are never stopped: the cache must stay usable while the process exits, so it
// has nothing to destroy.
static_assert(std::is_trivially_destructible<SessionCache>::value,
              "the session cache must outlive static destruction");
SessionCache g_cache;

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

// A generation whose contents the first transfer tells.
Generation* newGeneration() {
    return new (std::nothrow) Generation;
}

// The group of a destination: a hash of its URL up to the end of the host and port. Two
// spellings of one destination may land in two groups; that only costs a handshake.
std::size_t groupOf(const char* uri) {
    const char* end = std::strstr(uri, "://");
    end = end != nullptr ? end + 3 : uri;
    end += std::strcspn(end, "/?#");
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char* at = uri; at != end; ++at) {
        hash ^= static_cast<unsigned char>(*at);
        hash *= 0x100000001b3ULL;
    }
    return static_cast<std::size_t>(hash % kShareGroups);
}

// The share handle of the destination's group, made when first needed; null when libcurl
// gives none.
CURLSH* shareFor(Generation& generation, const char* uri) {
    CURLSH*& share = generation.shares[groupOf(uri)];
    if (share == nullptr) {
        share = newShare();
    }
    return share;
}

// Parses the files' contents for the generation when it has no parse that can stand in for
// them yet (checking: whether the CA bundle is needed), as long as it has parses left.
void parseCredentials(Generation& generation, const CredentialFiles& files, bool checking) {
    const TlsCredentials* latest = generation.credentials();
    if (!g_cache.tlsLibraryIsOurs || (latest != nullptr && latest->usable(checking)) ||
        generation.parseCount == kParses) {
        return;
    }
    std::unique_ptr<TlsCredentials> parsed(new (std::nothrow) TlsCredentials(files));
    if (parsed != nullptr) {
        generation.parses[generation.parseCount++] = std::move(parsed);
    }
}

// Releases the generation's share handles no transfer is attached to any more, and the
// generation with them when that was all of them.
bool releaseIfIdle(Generation* generation) {
    bool idle = true;
    for (CURLSH*& share : generation->shares) {
        if (share != nullptr && curl_share_cleanup(share) == CURLSHE_OK) {
            share = nullptr;
        }
        idle = idle && share == nullptr;
    }
    if (!idle) {
        return false;
    }
    // Held by raw pointer in the cache, which must outlive static destruction; released here,
    // with its parses, once no transfer is attached to it.
    delete generation;
    return true;
}

// Releases every retired generation that has become idle. Called with the cache's mutex held:
// no transfer attaches to a retired generation, so one found idle stays idle.
void releaseIdleGenerations() {
    for (Generation*& generation : g_cache.retired) {
        if (generation != nullptr && releaseIfIdle(generation)) {
            generation = nullptr;
        }
    }
}

// Moves the current generation to the retired ones; false when every place is taken.
bool retireCurrent() {
    for (Generation*& generation : g_cache.retired) {
        if (generation == nullptr) {
            generation = g_cache.current;
            g_cache.current = nullptr;
            return true;
        }
    }
    return false;
}

// The generation of these contents, made when they changed, with the contents parsed if they
// can be; null when there is none.
Generation* generationFor(const CredentialFiles& files, bool checking) {
    if (!g_cache.open) {
        return nullptr;
    }
    releaseIdleGenerations();
    Generation* current = g_cache.current;
    if (current != nullptr && current->labelled && current->fingerprint != files.fingerprint &&
        !retireCurrent()) {
        return nullptr;
    }
    if (g_cache.current == nullptr) {
        g_cache.current = newGeneration();
    }
    if (g_cache.current != nullptr && !g_cache.current->labelled) {
        g_cache.current->fingerprint = files.fingerprint;
        g_cache.current->labelled = true;
    }
    if (g_cache.current != nullptr) {
        parseCredentials(*g_cache.current, files, checking);
    }
    return g_cache.current;
}

// The transfer loads the credential files itself, as setPostOptions set it up; its TLS context
// is still prepared (no key log).
void useFiles(CURL* curl, bool checking) {
    (void)curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, prepareTlsContext);
    (void)curl_easy_setopt(curl, CURLOPT_SSL_CTX_DATA, static_cast<void*>(nullptr));
    (void)curl_easy_setopt(curl, CURLOPT_SSLCERT, fixedPath(FixedPath::ClientCertificate));
    (void)curl_easy_setopt(curl, CURLOPT_SSLKEY, fixedPath(FixedPath::ClientKey));
    if (checking) {
        (void)curl_easy_setopt(curl, CURLOPT_CAINFO, fixedPath(FixedPath::ServerCaBundle));
    }
}

// The transfer takes the parsed credentials instead of loading the files; false when libcurl
// refused, and the transfer then loads the files itself.
bool useParsed(CURL* curl, bool checking, const TlsCredentials* credentials) {
    if (curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, prepareTlsContext) != CURLE_OK ||
        curl_easy_setopt(curl, CURLOPT_SSL_CTX_DATA, const_cast<TlsCredentials*>(credentials)) !=
            CURLE_OK) {
        return false;
    }
    const char* const none = nullptr;
    (void)curl_easy_setopt(curl, CURLOPT_SSLCERT, none);
    (void)curl_easy_setopt(curl, CURLOPT_SSLKEY, none);
    if (checking) {
        (void)curl_easy_setopt(curl, CURLOPT_CAINFO, none);
    }
    return true;
}

} // namespace

void createSessionCache() {
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    if (g_cache.open) {
        return;
    }
    g_cache.open = true;
    g_cache.tlsLibraryIsOurs = tlsLibraryIsOurs();
    if (g_cache.current == nullptr) {
        g_cache.current = newGeneration();
    }
}

void releaseSessionCache() {
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    g_cache.open = false;
    if (g_cache.current != nullptr && (releaseIfIdle(g_cache.current) || retireCurrent())) {
        g_cache.current = nullptr;
    }
    // A generation some transfer is still attached to cannot be released; it stays retired.
    releaseIdleGenerations();
}

bool sessionCacheHoldsUsableCredentials(bool checking) {
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    const Generation* generation = g_cache.current;
    const TlsCredentials* credentials = generation != nullptr ? generation->credentials() : nullptr;
    return credentials != nullptr && credentials->usable(checking);
}

void attachSessionCache(CURL* curl, const char* uri, bool checking) {
    const CredentialFiles files = readCredentialFiles();
    std::lock_guard<std::mutex> guard(g_cache.mutex);
    // Attached under the mutex, so no retired generation is released between the choice and
    // the attachment.
    Generation* generation = generationFor(files, checking);
    CURLSH* share = generation != nullptr ? shareFor(*generation, uri) : nullptr;
    (void)curl_easy_setopt(curl, CURLOPT_SHARE, share);
    const TlsCredentials* credentials = share != nullptr ? generation->credentials() : nullptr;
    if (credentials == nullptr || !credentials->usable(checking) ||
        !useParsed(curl, checking, credentials)) {
        useFiles(curl, checking);
    }
}

} // namespace rfevent
