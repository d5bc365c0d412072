#include "frame/alert_entry_internal.h"

#include <cstring>

#include "base/guard.h"
#include "base/log.h"
#include "platform/platform.h"
#include "publish/publish.h"
#include "rfevent/redfish_event.h"

namespace rfevent {

bool isRedfishEventingEnabled() {
    static const char kKey[] = "Tavik.Embedded.1#RedfishEventing.1#EventEnable";
    // Room for "1" and its terminator: any longer value does not fit and reads as disabled.
    char value[2] = {0, 0};
    uint32_t length = sizeof value;
    int status = CfgGetAttribute(kKey, value, &length);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]Attribute get failed for %s with error: %d", kKey, status);
        return false;
    }
    return std::strcmp(value, "1") == 0;
}

} // namespace rfevent

extern "C" RFEVENT_API void sendRedFishEventAlert(DataEventHeader* header, void* eventContext) {
    RF_ENTER();
    if (header == nullptr || eventContext == nullptr) {
        RF_LOG(rfevent::kLogDebug, "[%s():%d]DataEventHeader is NULL\n");
        RF_EXIT();
        return;
    }
    // Each channel is a unit of its own: an exception ends that channel only, never the host's
    // thread, and the SSE path still runs after a failed subscriber path.
    bool enabled = false;
    rfevent::guarded(RF_HERE, "isRedfishEventingEnabled dropped the alert",
                     [&] { enabled = rfevent::isRedfishEventingEnabled(); });
    if (enabled) {
        rfevent::publishAlert(RF_HERE, header, eventContext);
    }
    RF_EXIT();
}
