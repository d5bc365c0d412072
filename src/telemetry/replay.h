// Replay of the last report to an SSE client that reconnects with its last event id.
#ifndef RFEVENT_TELEMETRY_REPLAY_H
#define RFEVENT_TELEMETRY_REPLAY_H

namespace rfevent {

// Thread body; its argument is the thread's run flag (rfevent::RunFlag*). Never returns.
void* RedfishSSEInfraNotifyThread(void* runFlag);

} // namespace rfevent

#endif
