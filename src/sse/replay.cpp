#include "sse/replay.h"

#include <unistd.h>

// Placeholder thread bodies: they park until their subsystem lands.
void* RedfishSSEInfraNotifyThread(void* unused) {
    (void)unused;
    for (;;) {
        sleep(3600);
    }
}

