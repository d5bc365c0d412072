#include "base/paths.h"

#include <array>
#include <cstdlib>
#include <string>

namespace rfevent {

namespace {

constexpr std::array<const char*, 18> kFixedPaths = {
    "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json",
    "/var/run/lumenrest/sse_subscriptions.json",
    "/var/run/lumenrest/SSE_FIFO",
    "/var/run/lumenrest-providers/telemetryfifo",
    "/var/run/lumenrest-providers/testreportfifo",
    "/var/run/lumenrest-providers/sseinfranotifyfifo",
    "/var/run/telemetryservice/telemetry_timeseries_database.db",
    "/etc/certs/CA/certs/host.crt",
    "/flash/data0/cv/private/host.key",
    "/etc/certs/pubkey/https_server_ca.crt",
    "/var/tmp/telemetry/SerialLog.bin",
    "/var/tmp/telemetry/SerialLog.lock",
    "/flash/data0/IERR_LOG/IERR_LOG1/IERRMSRBIN.bin",
    "/var/tmp/telemetry/SerialLog.json",
    "/var/tmp/telemetry/CpuRegisterDump.json",
    "/var/tmp/telemetry/SerialLogRS.txt",
    "/var/tmp/telemetry/CpuRegisterDumpRS.txt",
    "/var/run/rfevent/delivery-status.json",
};

struct Resolved {
    std::array<std::string, kFixedPaths.size()> paths;
    std::string sseService = "4205";

    Resolved() {
        const char* root = std::getenv("RFEVENT_ROOT");
        for (size_t i = 0; i < kFixedPaths.size(); ++i) {
            paths[i] = (root && *root) ? std::string(root) + kFixedPaths[i] : kFixedPaths[i];
        }
        const char* port = std::getenv("RFEVENT_SSE_PORT");
        if (port && *port) {
            sseService = port;
        }
    }
};

// Never destroyed: the worker threads keep using the paths until the process ends.
const Resolved& resolved() {
    static const Resolved& instance = *new Resolved;
    return instance;
}

} // namespace

const char* fixedPath(FixedPath which) {
    return resolved().paths[static_cast<size_t>(which)].c_str();
}

const char* sseHost() {
    return "127.0.0.1";
}

const char* sseService() {
    return resolved().sseService.c_str();
}

} // namespace rfevent
