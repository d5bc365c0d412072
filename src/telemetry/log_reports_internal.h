// Inside the built-in reports, for their tests.
#ifndef RFEVENT_TELEMETRY_LOG_REPORTS_INTERNAL_H
#define RFEVENT_TELEMETRY_LOG_REPORTS_INTERNAL_H

#include <cstddef>
#include <string>

namespace rfevent {

int sendSerialLogToSSE();
void sendCPUDumpToTelemetry();
int sendCPURegisterReport(const char* base64Payload, const char* type);
std::string GenerateLogEntryJsonForTelemetry(std::string payload, const char* type);
int GetReportSequence(const char* path);
int SetReportSequence(const char* path, int value);
// Standard base64 of data in a new text on the C heap (caller frees), or null.
char* base64Encode(const unsigned char* data, std::size_t length, std::size_t* outLength);

} // namespace rfevent

#endif
