// Inside the replay thread, for the thread and its tests.
#ifndef RFEVENT_TELEMETRY_REPLAY_INTERNAL_H
#define RFEVENT_TELEMETRY_REPLAY_INTERNAL_H

#include <sys/types.h>

#include <string>

#include "base/pipe_thread.h"

namespace rfevent {

// The thread's read buffer; every read asks for one byte less, so the text stays terminated.
constexpr int kSseInfraBufferSize = 512;
constexpr int kSseInfraReadSize = kSseInfraBufferSize - 1;

// The replay pipe read into buffer (kSseInfraBufferSize bytes), two seconds' pacing after
// every read.
rfevent::PipeThread sseInfraPipe(char* buffer);

// Handles what one read of count bytes left in buffer: a positive count is one replay request;
// the buffer is zeroed afterwards. No pacing sleep here.
void sseInfraHandleRead(char* buffer, ssize_t count);

// Handles one request "<last event id>|<filter text>".
void process_last_event_id(const char* request);

// The whole content of the stored "seriallog" or "CPURegisters" report (caller frees), or null.
char* sendLastLogToSSE(std::string name);

} // namespace rfevent

#endif
