#include "plugin_host.h"

#include <dlfcn.h>

namespace rfevent::sim {

PluginHost::~PluginHost() {
    unload();
}

bool PluginHost::load(const std::string& path) {
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* why = ::dlerror(); // NOLINT(concurrency-mt-unsafe): per-thread in glibc
        error_ = why ? why : ("cannot load " + path);
        return false;
    }
    struct Entry {
        const char* name;
        void** slot;
    };
    void* init = nullptr;
    void* alert = nullptr;
    void* map = nullptr;
    const Entry entries[] = {{"Redfish_telemetry_init", &init},
                             {"sendRedFishEventAlert", &alert},
                             {"MapFQDDToRedfishURI", &map},
                             {"RedfishEventPluginInit", nullptr},
                             {"RedfishEventPluginCleanup", nullptr}};
    for (const Entry& entry : entries) {
        ::dlerror(); // NOLINT(concurrency-mt-unsafe): per-thread in glibc
        void* symbol = ::dlsym(handle_, entry.name);
        if (symbol == nullptr) {
            error_ = std::string("symbol ") + entry.name + " not exported by " + path;
            ::dlclose(handle_);
            handle_ = nullptr;
            return false;
        }
        if (entry.slot != nullptr) {
            *entry.slot = symbol;
        }
    }
    telemetryInit_ = reinterpret_cast<InitFn>(init);
    sendAlert_ = reinterpret_cast<AlertFn>(alert);
    mapFqdd_ = reinterpret_cast<MapFn>(map);
    return true;
}

void PluginHost::startWorkers() {
    if (handle_ != nullptr && !started_) {
        started_ = true;
        telemetryInit_();
    }
}

void PluginHost::sendAlert(DataEventHeader* header) {
    // The event system always passes a context; the plug-in only requires it to be non-null.
    static int eventContext = 0;
    if (handle_ != nullptr) {
        sendAlert_(header, &eventContext);
    }
}

std::string PluginHost::mapFqdd(const std::string& fqdd) const {
    if (handle_ == nullptr) {
        return "";
    }
    char buffer[256] = {};
    mapFqdd_(fqdd.c_str(), buffer, sizeof buffer);
    return buffer;
}

bool PluginHost::unload() {
    if (handle_ == nullptr) {
        return true;
    }
    // The plug-in pins itself once its workers run, so their code stays mapped after this.
    bool ok = ::dlclose(handle_) == 0;
    if (!ok) {
        const char* why = ::dlerror(); // NOLINT(concurrency-mt-unsafe): per-thread in glibc
        error_ = why ? why : "dlclose failed";
    }
    handle_ = nullptr;
    return ok;
}

} // namespace rfevent::sim
