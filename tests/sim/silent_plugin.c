/* A plug-in that loads and takes every call but delivers nothing: a simulator run against it
 * finds every expected delivery missing, whatever the machine's speed. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "rfevent/redfish_event.h"

void RedfishEventPluginInit(void) {}

void RedfishEventPluginCleanup(void) {}

/* Holds the telemetry pipe open for reading, so announcements are taken, and never reads. */
void Redfish_telemetry_init(void) {
    const char* root = getenv("RFEVENT_ROOT");
    char path[4096];
    snprintf(path, sizeof path, "%s/var/run/lumenrest-providers/telemetryfifo", root ? root : "");
    mkfifo(path, 0660);
    (void)open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

void sendRedFishEventAlert(DataEventHeader* header, void* eventContext) {
    (void)header;
    (void)eventContext;
}

char* MapFQDDToRedfishURI(const char* fqdd, char* buffer, uint32_t size) {
    (void)fqdd;
    if (size > 0) {
        buffer[0] = '\0';
    }
    return buffer;
}
