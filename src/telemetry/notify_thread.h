// The thread that reads report names from the telemetry service's pipe.
#ifndef RFEVENT_TELEMETRY_NOTIFY_THREAD_H
#define RFEVENT_TELEMETRY_NOTIFY_THREAD_H

namespace rfevent {

// Thread body; its argument is the thread's run flag (rfevent::RunFlag*). Never returns.
void* TelemetryServiceNotifyWaitThread(void* runFlag);

} // namespace rfevent

#endif
