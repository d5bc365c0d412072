// Inside the alert entry point, for its tests: the eventing switch.
#ifndef RFEVENT_FRAME_ALERT_ENTRY_INTERNAL_H
#define RFEVENT_FRAME_ALERT_ENTRY_INTERNAL_H

namespace rfevent {

// True only when "Tavik.Embedded.1#RedfishEventing.1#EventEnable" reads exactly "1".
bool isRedfishEventingEnabled();

} // namespace rfevent

#endif
