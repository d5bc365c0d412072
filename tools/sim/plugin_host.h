// Loads the plug-in the way the REST server does: dlopen, dlsym of the exported entry points,
// one call of Redfish_telemetry_init, alerts on the caller's thread, dlclose at the end.
#ifndef RFEVENT_SIM_PLUGIN_HOST_H
#define RFEVENT_SIM_PLUGIN_HOST_H

#include <string>

#include "rfevent/redfish_event.h"

namespace rfevent::sim {

class PluginHost {
  public:
    PluginHost() = default;
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // dlopen (the loader runs the plug-in's constructor) and resolve the entry points.
    // Returns false with a message in error() when the library or a symbol is missing.
    bool load(const std::string& path);
    // Starts the plug-in's worker threads; called once.
    void startWorkers();
    // One platform alert, delivered on the calling thread.
    void sendAlert(DataEventHeader* header);
    // Maps an FQDD with the plug-in's own exported mapping.
    std::string mapFqdd(const std::string& fqdd) const;
    // dlclose; true when the loader accepted it.
    bool unload();

    bool loaded() const { return handle_ != nullptr; }
    const std::string& error() const { return error_; }

  private:
    using InitFn = void (*)();
    using AlertFn = void (*)(DataEventHeader*, void*);
    using MapFn = char* (*)(const char*, char*, uint32_t);

    void* handle_ = nullptr;
    InitFn telemetryInit_ = nullptr;
    AlertFn sendAlert_ = nullptr;
    MapFn mapFqdd_ = nullptr;
    bool started_ = false;
    std::string error_;
};

} // namespace rfevent::sim

#endif
