// The telemetry service's pipe of report names, and the thread that reads it.
#ifndef RFEVENT_TELEMETRY_NOTIFY_THREAD_H
#define RFEVENT_TELEMETRY_NOTIFY_THREAD_H

#include <sys/types.h>

#include <cstddef>

void* TelemetryServiceNotifyWaitThread(void* unused);

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

// Result of the first half of a pass.
enum class TelemetryPassStart {
    Opened,         // *fd holds the pipe, open for reading
    PipeFailed,     // mkfifo failed with another error than EEXIST
    RegisterFailed, // the telemetry service refused the registration
    OpenFailed,     // the pipe exists but could not be opened
};

// Creates the pipe, registers it with the telemetry service and opens it for reading (blocks
// until a writer opens it).
TelemetryPassStart openTelemetryPipe(int* fd);

// One read of the pipe into state.readBuffer, parsed; the buffer is zeroed afterwards.
// Returns read()'s result: < 0 error (the pass ends), 0 no writer, > 0 bytes handled.
ssize_t readTelemetryPipeOnce(TelemetryPipeState& state, int fd);

} // namespace rfevent

#endif
