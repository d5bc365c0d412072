#include "rfevent/redfish_event.h"

// Placeholder until the FQDD mapping lands.
extern "C" RFEVENT_API char* MapFQDDToRedfishURI(const char* fqdd, char* buffer, uint32_t size) {
    (void)fqdd;
    if (size > 0) {
        buffer[0] = '\0';
    }
    return buffer;
}
