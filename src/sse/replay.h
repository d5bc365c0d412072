// Replay of the last report to an SSE client that reconnects with its last event id.
#ifndef RFEVENT_SSE_REPLAY_H
#define RFEVENT_SSE_REPLAY_H

#include <string>

void* RedfishSSEInfraNotifyThread(void* unused);

// Handles one request "<last event id>|<filter text>".
void process_last_event_id(const char* request);

// The whole content of the stored "seriallog" or "CPURegisters" report (caller frees), or null.
char* sendLastLogToSSE(std::string name);

#endif
