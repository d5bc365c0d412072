#include "telemetry/notify_thread.h"

#include <unistd.h>

// Placeholder thread bodies: they park until their subsystem lands.
void* TelemetryServiceNotifyWaitThread(void* unused) {
    (void)unused;
    for (;;) {
        sleep(3600);
    }
}

