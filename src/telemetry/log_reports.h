// The serial-log and CPU-register reports, built by the plug-in from capture files.
#ifndef RFEVENT_TELEMETRY_LOG_REPORTS_H
#define RFEVENT_TELEMETRY_LOG_REPORTS_H

#include <cstddef>
#include <string>

#include "base/builtin_reports.h"

namespace rfevent {

int sendSerialLogToSSE();
void sendCPUDumpToTelemetry();
int sendCPURegisterReport(const char* base64Payload, const char* type);
std::string GenerateLogEntryJsonForTelemetry(std::string payload, const char* type);
int GetReportSequence(const char* path);
int SetReportSequence(const char* path, int value);
// Standard base64 of data in a new text on the C heap (caller frees), or null.
char* base64Encode(const unsigned char* data, std::size_t length, std::size_t* outLength);

// Builds, stores and publishes the built-in report of type from its capture.
void sendBuiltInReport(const BuiltInReport& type);

} // namespace rfevent

#endif
