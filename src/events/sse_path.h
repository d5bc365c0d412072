// Alerts to SSE clients: one numbered frame per SSE subscription that asks for alerts.
#ifndef RFEVENT_EVENTS_SSE_PATH_H
#define RFEVENT_EVENTS_SSE_PATH_H

#include "rfevent/redfish_event.h"

namespace rfevent {

void sendRedFishEvent_SSE(DataEventHeader* header, void* eventContext);

} // namespace rfevent

#endif
