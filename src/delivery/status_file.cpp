#include "delivery/status_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <mutex>

#include <json/json.h>

#include "base/durable_file.h"
#include "base/json.h"
#include "base/paths.h"

namespace rfevent {

namespace {

// What the store looked like when its ids were last read.
struct StoreIds {
    std::mutex mutex;
    bool known = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {};
    std::set<std::string> ids;
};

StoreIds& storeIds() {
    static StoreIds& cache = *new StoreIds; // used by threads that outlive the unload
    return cache;
}

bool sameFile(const StoreIds& cache, const struct stat& info) {
    return cache.known && cache.device == info.st_dev && cache.inode == info.st_ino &&
           cache.size == info.st_size && cache.modified.tv_sec == info.st_mtim.tv_sec &&
           cache.modified.tv_nsec == info.st_mtim.tv_nsec;
}

} // namespace

bool storedSubscriptionIds(std::set<std::string>& ids) {
    const char* path = fixedPath(FixedPath::SubscriptionStore);
    StoreIds& cache = storeIds();
    std::lock_guard<std::mutex> lock(cache.mutex);
    struct stat info = {};
    if (::stat(path, &info) != 0) {
        cache.known = false;
        ids.clear();
        return errno == ENOENT;
    }
    if (!sameFile(cache, info)) {
        Json::Value store;
        if (loadJsonObjectQuietly(path, store) != QuietLoad::Parsed) {
            cache.known = false;
            return false;
        }
        cache.ids.clear();
        for (auto it = store.begin(); it != store.end(); ++it) {
            cache.ids.insert(it.name());
        }
        cache.known = true;
        cache.device = info.st_dev;
        cache.inode = info.st_ino;
        cache.size = info.st_size;
        cache.modified = info.st_mtim;
    }
    ids = cache.ids;
    return true;
}

bool replaceStatusFile(const std::string& text) {
    const std::string path = fixedPath(FixedPath::DeliveryStatus);
    const std::string folder = path.substr(0, path.rfind('/'));
    if (::mkdir(folder.c_str(), 0755) == 0) {
        ::chmod(folder.c_str(), 0755); // whatever the host's umask
    } else if (errno != EEXIST) {
        return false;
    }
    return rewriteFileAtomically(path, text, 0644).done();
}

} // namespace rfevent
