// The alert entry point and the eventing switch.
#ifndef RFEVENT_FRAME_ALERT_ENTRY_H
#define RFEVENT_FRAME_ALERT_ENTRY_H

namespace rfevent {

// True only when "Tavik.Embedded.1#RedfishEventing.1#EventEnable" reads exactly "1".
bool isRedfishEventingEnabled();

} // namespace rfevent

#endif
