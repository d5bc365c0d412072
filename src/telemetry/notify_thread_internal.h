// Inside the telemetry notify thread: its buffers, the parse of one read and the actions an
// announcement leads to. For the thread itself, its tests, fuzz target and benchmark.
#ifndef RFEVENT_TELEMETRY_NOTIFY_THREAD_INTERNAL_H
#define RFEVENT_TELEMETRY_NOTIFY_THREAD_INTERNAL_H

#include <cstddef>

#include "base/pipe_thread.h"

namespace rfevent {

constexpr std::size_t kTelemetryReadSize = 2046;
constexpr std::size_t kTelemetryNameSize = 256;
constexpr int kTelemetryRegistrationId = 43;

// The reader's buffers: allocated and zeroed once when the thread starts, then kept.
struct TelemetryPipeState {
    // One read of at most kTelemetryReadSize bytes; the spare last byte stays NUL, so the read
    // can be logged as text without a copy.
    char readBuffer[kTelemetryReadSize + 1];
    char name[kTelemetryNameSize];          // the name being collected
    char savedFragment[kTelemetryNameSize]; // a name cut by the end of a read
    char combined[2 * kTelemetryNameSize];  // saved fragment + first name of a later read
};

// What an announcement leads to. The thread uses the real functions; tests may swap them.
struct TelemetryPipeActions {
    char* (*lookup)(const char* reportName); // result freed with free()
    int (*sendToSubscriptions)(const char* report);
    int (*sendToSse)(const char* report);
    int (*serialLogReport)();
    void (*cpuRegisterReport)();
};

// The actions in use; initialised to the real lookup, fan-outs and log reports.
extern TelemetryPipeActions g_telemetryPipeActions;
// The real actions, to restore after a test.
TelemetryPipeActions defaultTelemetryPipeActions();

// Parses the first n bytes of state.readBuffer: every name closed by "|" is handled (command
// or report lookup and fan-out), a name cut by the end of the read is saved as fragment.
void parseTelemetryRead(TelemetryPipeState& state, int n);

// The telemetry pipe as the thread reads it: registration with the telemetry service before
// each open, reads parsed into state, a second's pause when no writer has it open.
PipeThread telemetryPipe(TelemetryPipeState& state);

} // namespace rfevent

#endif
