#include "telemetry/notify_thread.h"
#include "telemetry/notify_thread_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/builtin_reports.h"
#include "base/guard.h"
#include "base/heap_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/pipe_thread.h"
#include "base/report.h"
#include "base/run_flags.h"
#include "platform/platform.h"
#include "publish/publish.h"
#include "telemetry/log_reports.h"
#include "telemetry/report_db.h"

namespace rfevent {

namespace {

const char* telemetryFifo() {
    return fixedPath(FixedPath::TelemetryFifo);
}

// Looks the report up and publishes it.
void lookUpAndSend(const TelemetryPipeState& state, const char* reportName) {
    const HeapText report(state.lookup(reportName));
    if (report) {
        RF_LOG(kLogInfo, "[%s():%d]Sending reports to Subscription and SSE");
        publishReport(ParsedReport(report.get()));
    }
}

// One announcement: a built-in report's command or a report name. length is
// strlen(state.name), which the parse already knows.
void handleName(TelemetryPipeState& state, std::size_t length, bool useFragment) {
    if (const BuiltInReport* builtIn = builtInReportCommanded(state.name, length)) {
        state.builtInReport(*builtIn);
    } else if (useFragment) {
        RF_LOG(kLogInfo, "[%s():%d]Reading first report name from pipe");
        std::snprintf(state.combined, sizeof state.combined, "%s%s", state.savedFragment,
                      state.name);
        RF_LOG(kLogInfo, "[%s():%d]Combined report name : %s\n", state.combined);
        lookUpAndSend(state, state.combined);
    } else {
        lookUpAndSend(state, state.name);
    }
}

// The bytes from i to the end of the read hold a name without its "|": the writer's next
// write carries the rest. A cut name longer than the name buffer is dropped.
void saveFragment(TelemetryPipeState& state, int i, int n) {
    const std::size_t length = static_cast<std::size_t>(n - i);
    const std::size_t maxName = kTelemetryNameSize - 1;
    std::memcpy(state.name, state.readBuffer + i, std::min(length, maxName));
    if (length > maxName) {
        return;
    }
    std::memcpy(state.savedFragment, state.name, length);
    state.savedFragment[length] = '\0';
    RF_LOG(kLogInfo, "[%s():%d]Last report name fragment :%s", state.savedFragment);
}

// The first "|" in [start, end), or null; *textEnd gets where the bytes from start stop being
// text (the first NUL), when that is before the "|". One scan finds both in the usual case, a
// name without NUL: the scan may run past end, but not past the read buffer, whose spare last
// byte is always NUL.
const char* findBar(const char* start, const char* end, const char** textEnd) {
    const char* stop = strchrnul(start, '|');
    *textEnd = stop;
    if (stop >= end) {
        return nullptr;
    }
    if (*stop == '|') {
        return stop;
    }
    return static_cast<const char*>(std::memchr(stop, '|', static_cast<std::size_t>(end - stop)));
}

} // namespace

void parseTelemetryRead(TelemetryPipeState& state, int n) {
    const std::size_t maxName = kTelemetryNameSize - 1;
    const char* buffer = state.readBuffer;
    // A "|" that opens the read closes the name cut by the previous read; its terminator is
    // the next byte, which the scan below takes as the first byte of the next name.
    int i = n > 0 && buffer[0] == '|' ? 1 : 0;
    while (i < n) {
        const char* textEnd = nullptr;
        const char* bar = findBar(buffer + i, buffer + n, &textEnd);
        if (bar == nullptr) {
            saveFragment(state, i, n);
            return;
        }
        const int end = static_cast<int>(bar - buffer);
        // Bytes past the name buffer are dropped; the name is still handled.
        const std::size_t length = std::min(static_cast<std::size_t>(end - i), maxName);
        // memmove, not memcpy: the compiler expands a memcpy of up to 255 bytes inline, which
        // takes more instructions for a usual name than the C library's vector copy.
        std::memmove(state.name, buffer + i, length);
        state.name[length] = '\0';
        // The name as text: up to a NUL inside it, if there is one.
        const std::size_t textLength =
            std::min(static_cast<std::size_t>(textEnd - (buffer + i)), length);
        RF_LOG(kLogInfo, "[%s():%d]Telemetry report  = %s \n", state.name);
        // A name that started this read whole may be the rest of the last cut name.
        const bool useFragment =
            state.savedFragment[0] != '\0' && static_cast<int>(length) == end && buffer[0] != '|';
        // One announcement is one unit of work: a failure drops it, the parse goes on.
        guarded(RF_HERE, "Report announcement dropped",
                [&] { handleName(state, textLength, useFragment); });
        i = end + 2; // the byte after "|" is the writer's terminator
    }
}

namespace {

bool registerForReportTriggers() {
    int status = telemetrySvc_registerForReportTriggers(telemetryFifo(), kTelemetryRegistrationId);
    if (status != 0) {
        RF_LOG(kLogInfo, "[%s():%d]telemetrySvc_registerForReportTriggers failed, status = %d \n",
               status);
        return false;
    }
    return true;
}

// fifo is the pipe's path, looked up once for the thread. Every announcement passes here, so
// the parse is compiled into it whole (flatten), without the calls between its parts.
__attribute__((flatten)) void handleTelemetryRead(TelemetryPipeState& state, const char* fifo,
                                                  ssize_t count) {
    RF_LOG(kLogDebug, "[%s():%d]TELEMETRYFIFO read happened %s", fifo);
    // A read asks for at most kTelemetryReadSize bytes: the count fits an int.
    const int n = static_cast<int>(count);
    if (n > 0) {
        RF_LOG(kLogInfo, "[%s():%d]Telemetry service to RF %s, %d\n", state.readBuffer, n);
        parseTelemetryRead(state, n);
        // The buffer was all zero before the read, which wrote only these bytes: clearing
        // them leaves the whole buffer zeroed.
        std::memset(state.readBuffer, 0, static_cast<std::size_t>(n));
    }
}

} // namespace

PipeThread telemetryPipe(TelemetryPipeState& state) {
    const char* fifo = telemetryFifo();
    return PipeThread{
        fifo,
        {"Redfish Telemetry service ", "Redfish Telemetry service", "TELEMETRYFIFO",
         "TELEMETRYFIFO", kLogError},
        state.readBuffer,
        kTelemetryReadSize,
        1, // seconds between polls of a pipe without writer
        0,
        registerForReportTriggers,
        [&state, fifo](char*, ssize_t count) { handleTelemetryRead(state, fifo, count); },
    };
}

void* TelemetryServiceNotifyWaitThread(void* runFlag) {
    using namespace rfevent;
    // Lives as long as the thread, that is as long as the process.
    auto* state = new (std::nothrow) TelemetryPipeState();
    if (state == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Telemetry notify thread has no buffers");
        parkForever();
    }
    RF_LOG(kLogInfo, "[%s():%d]TelemetryService notify thread start");
    RF_LOG(kLogInfo, "[%s():%d]In funtion \nthread id = %lu\n",
           static_cast<unsigned long>(pthread_self()));
    runPipeThread(telemetryPipe(*state), static_cast<const RunFlag*>(runFlag));
    parkForever();
}

} // namespace rfevent
