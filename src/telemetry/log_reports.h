// The serial-log and CPU-register reports, built by the plug-in from capture files.
#ifndef RFEVENT_TELEMETRY_LOG_REPORTS_H
#define RFEVENT_TELEMETRY_LOG_REPORTS_H

#include <atomic>
#include <cstddef>
#include <string>

namespace rfevent {

// Sequence of the next report of each type, as last loaded from its sequence file; the SSE
// sender uses the value as event id and then increments it.
extern std::atomic<int> serialLogSequence;
extern std::atomic<int> cpuRegisterSequence;

int sendSerialLogToSSE();
void sendCPUDumpToTelemetry();
int sendCPURegisterReport(const char* base64Payload, const char* type);
std::string GenerateLogEntryJsonForTelemetry(std::string payload, const char* type);
int GetReportSequence(const char* path);
int SetReportSequence(const char* path, int value);
int sendLog_to_sse(const char* reportJson, const char* type);
void EncodeStr(std::string& message);
char* base64Encode(const unsigned char* data, std::size_t length, std::size_t* outLength);

} // namespace rfevent

#endif
