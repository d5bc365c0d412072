// Replay of the last report to an SSE client that reconnects with its last event id.
#ifndef RFEVENT_SSE_REPLAY_H
#define RFEVENT_SSE_REPLAY_H

#include <sys/types.h>

#include <string>

// The thread's read buffer; every read asks for one byte less, so the text stays terminated.
constexpr int kSseInfraBufferSize = 512;
constexpr int kSseInfraReadSize = kSseInfraBufferSize - 1;

void* RedfishSSEInfraNotifyThread(void* unused);

// The thread's pipe loop: runs while the SSE infrastructure flag reads 0 and returns once it
// does not (checked after each closed pipe). The thread body itself never returns.
void sseInfraNotifyLoop();

// Handles what one read of count bytes left in buffer (kSseInfraBufferSize bytes): a positive
// count is one replay request; the buffer is zeroed afterwards. No pacing sleep here.
void sseInfraHandleRead(char* buffer, ssize_t count);

// Handles one request "<last event id>|<filter text>".
void process_last_event_id(const char* request);

// The whole content of the stored "seriallog" or "CPURegisters" report (caller frees), or null.
char* sendLastLogToSSE(std::string name);

#endif
