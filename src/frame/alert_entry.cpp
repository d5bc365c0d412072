#include "frame/alert_entry.h"

#include <cstring>
#include <exception>

#include "base/log.h"
#include "events/sse_path.h"
#include "events/subscriber_path.h"
#include "rfevent/redfish_event.h"

bool isRedfishEventingEnabled() {
    static const char kKey[] = "Tavik.Embedded.1#RedfishEventing.1#EventEnable";
    // Room for "1" and its terminator: any longer value does not fit and reads as disabled.
    char value[2] = {0, 0};
    uint32_t length = sizeof value;
    int status = CfgGetAttribute(kKey, value, &length);
    if (status != 0) {
        RF_LOG(rfevent::kLogError, "[%s():%d]Attribute get failed for %s with error: %d", kKey,
               status);
        return false;
    }
    return std::strcmp(value, "1") == 0;
}

namespace {

// Runs one delivery path; an exception ends that path only, never the host's thread.
template <typename Path> void runGuarded(const char* name, Path path) {
    try {
        path();
    } catch (const std::exception& e) {
        RF_LOG(rfevent::kLogError, "[%s():%d]%s dropped the alert: %s", name, e.what());
    } catch (...) {
        RF_LOG(rfevent::kLogError, "[%s():%d]%s dropped the alert: unknown exception", name);
    }
}

} // namespace

extern "C" RFEVENT_API void sendRedFishEventAlert(DataEventHeader* header, void* eventContext) {
    RF_ENTER();
    if (header == nullptr || eventContext == nullptr) {
        RF_LOG(rfevent::kLogDebug, "[%s():%d]DataEventHeader is NULL\n");
        RF_EXIT();
        return;
    }
    bool enabled = false;
    runGuarded("isRedfishEventingEnabled", [&] { enabled = isRedfishEventingEnabled(); });
    if (enabled) {
        runGuarded("sendRedFishEvent", [&] { sendRedFishEvent(header, eventContext); });
        runGuarded("sendRedFishEvent_SSE", [&] { sendRedFishEvent_SSE(header, eventContext); });
    }
    RF_EXIT();
}
