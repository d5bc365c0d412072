#include "telemetry/test_report_thread.h"

#include <pthread.h>
#include <sys/types.h>

#include <cstring>

#include "base/guard.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report.h"
#include "base/run_flags.h"
#include "publish/publish.h"
#include "telemetry/test_report_thread_internal.h"

namespace rfevent {

namespace {

const char* testReportFifo() {
    return fixedPath(FixedPath::TestReportFifo);
}

void handleTestReportRead(char* buffer, ssize_t count) {
    RF_LOG(kLogDebug, "[%s():%d]TESTREPORTFIFO read happened %s", testReportFifo());
    if (count > 0) {
        RF_LOG(kLogInfo, "[%s():%d]TestMetricReport to RF size read  %d\n",
               static_cast<int>(count));
        // One read is one report: a failure while delivering it drops that report only.
        const SourceSpot here = RF_HERE;
        guarded(here, "Test report dropped", [&] {
            RF_LOG_AT(here, kLogInfo, "[%s():%d]Sending reports to Subscription and SSE");
            publishReport(ParsedReport(buffer));
        });
    }
    std::memset(buffer, 0, kTestReportBufferSize);
}

} // namespace

PipeThread testReportPipe(char* buffer) {
    return PipeThread{
        testReportFifo(),
        {"Redfish Test report", "Redfish Test report", "TESTREPORTFIFO", "TESTREPORTFIFO",
         kLogError},
        buffer,
        kTestReportBufferSize - 1, // the text stays terminated
        3,                         // seconds between polls of a pipe without writer
        0,
        nullptr,
        handleTestReportRead,
    };
}

void* RedfishTestMetricReportThread(void* runFlag) {
    using namespace rfevent;
    char buffer[kTestReportBufferSize] = {};
    RF_LOG(kLogInfo, "[%s():%d]Redfish Test report notify thread start");
    RF_LOG(kLogInfo, "[%s():%d]In funtion \nthread id = %lu\n",
           static_cast<unsigned long>(pthread_self()));
    runPipeThread(testReportPipe(buffer), static_cast<const RunFlag*>(runFlag));
    RF_LOG(kLogInfo, "[%s():%d]Report notify thread end");
    return nullptr;
}

} // namespace rfevent
