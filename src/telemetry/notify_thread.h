// The telemetry service's pipe of report names, and the thread that reads it.
#ifndef RFEVENT_TELEMETRY_NOTIFY_THREAD_H
#define RFEVENT_TELEMETRY_NOTIFY_THREAD_H

void* TelemetryServiceNotifyWaitThread(void* unused);

#endif
