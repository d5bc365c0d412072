// Inside the telemetry notify thread: its buffers and the parse of one read. For the thread
// itself, its tests, fuzz target and benchmark.
#ifndef RFEVENT_TELEMETRY_NOTIFY_THREAD_INTERNAL_H
#define RFEVENT_TELEMETRY_NOTIFY_THREAD_INTERNAL_H

#include <cstddef>

#include "base/builtin_reports.h"
#include "base/pipe_thread.h"
#include "telemetry/log_reports.h"
#include "telemetry/report_db.h"

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
    // What a name leads to: a report looked up (result freed with free()) in the telemetry
    // database, or a built-in report built from its capture. The parse's equivalence test, its
    // fuzz target and the announcement benchmark, which look at the parse alone, count the
    // names instead.
    char* (*lookup)(const char* reportName) = execute_report_views;
    void (*builtInReport)(const BuiltInReport& type) = sendBuiltInReport;
};

// Parses the first n bytes of state.readBuffer: every name closed by "|" is handled (a built-in
// report's command, or a report looked up and published), a name cut by the end of the read is
// saved as fragment.
void parseTelemetryRead(TelemetryPipeState& state, int n);

// The telemetry pipe as the thread reads it: registration with the telemetry service before
// each open, reads parsed into state, a second's pause when no writer has it open.
PipeThread telemetryPipe(TelemetryPipeState& state);

} // namespace rfevent

#endif
