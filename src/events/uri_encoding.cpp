#include "rfevent/redfish_event.h"

// Placeholder until the URI segment encoding lands.
RFEVENT_API void GetEncodedURIsegment(std::string& segment) { (void)segment; }
