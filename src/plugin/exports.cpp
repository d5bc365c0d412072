// Load and unload hooks of the plug-in. The loader runs RedfishEventPluginInit before the
// library's static objects are built, and RedfishEventPluginCleanup after they are destroyed.
#include "rfevent/redfish_event.h"

__attribute__((constructor(101))) static void pluginLoaded() {
    RedfishEventPluginInit();
}

__attribute__((destructor(101))) static void pluginUnloaded() {
    RedfishEventPluginCleanup();
}
