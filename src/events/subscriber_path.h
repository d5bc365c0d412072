// Alerts to push subscribers: one Event document per subscription that asks for alerts.
#ifndef RFEVENT_EVENTS_SUBSCRIBER_PATH_H
#define RFEVENT_EVENTS_SUBSCRIBER_PATH_H

#include "rfevent/redfish_event.h"

namespace rfevent {

void sendRedFishEvent(DataEventHeader* header, void* eventContext);

} // namespace rfevent

#endif
