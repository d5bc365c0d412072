// The plug-in's fixed paths and the SSE port. For development and tests the environment
// variable RFEVENT_ROOT relocates every fixed path under that folder, and RFEVENT_SSE_PORT
// replaces the SSE port; both are read once, the first time a path is needed.
#ifndef RFEVENT_BASE_PATHS_H
#define RFEVENT_BASE_PATHS_H

namespace rfevent {

enum class FixedPath {
    SubscriptionStore,   // "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"
    SseSubscriptions,    // "/var/run/lumenrest/sse_subscriptions.json"
    SseFifo,             // "/var/run/lumenrest/SSE_FIFO"
    TelemetryFifo,       // "/var/run/lumenrest-providers/telemetryfifo"
    TestReportFifo,      // "/var/run/lumenrest-providers/testreportfifo"
    SseInfraFifo,        // "/var/run/lumenrest-providers/sseinfranotifyfifo"
    TelemetryDatabase,   // "/var/run/telemetryservice/telemetry_timeseries_database.db"
    ClientCertificate,   // "/etc/certs/CA/certs/host.crt"
    ClientKey,           // "/flash/data0/cv/private/host.key"
    ServerCaBundle,      // "/etc/certs/pubkey/https_server_ca.crt"
    SerialLogCapture,    // "/var/tmp/telemetry/SerialLog.bin"
    SerialLogLock,       // "/var/tmp/telemetry/SerialLog.lock"
    CpuRegisterCapture,  // "/flash/data0/IERR_LOG/IERR_LOG1/IERRMSRBIN.bin"
    SerialLogReport,     // "/var/tmp/telemetry/SerialLog.json"
    CpuRegisterReport,   // "/var/tmp/telemetry/CpuRegisterDump.json"
    SerialLogSequence,   // "/var/tmp/telemetry/SerialLogRS.txt"
    CpuRegisterSequence, // "/var/tmp/telemetry/CpuRegisterDumpRS.txt"
    DeliveryStatus       // "/var/run/rfevent/delivery-status.json"
};

// The path to use for one of the fixed paths (relocated when RFEVENT_ROOT is set).
const char* fixedPath(FixedPath which);

// The SSE stream server's address and service ("127.0.0.1", "4205" or RFEVENT_SSE_PORT).
const char* sseHost();
const char* sseService();

} // namespace rfevent

#endif // RFEVENT_BASE_PATHS_H
