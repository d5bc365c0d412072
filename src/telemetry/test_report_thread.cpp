#include "telemetry/test_report_thread.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <exception>

#include "frame/lifecycle.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "sse/filter.h"
#include "subscriptions/report_delivery.h"

namespace rfevent {

TestReportActions defaultTestReportActions() {
    return {send_report_to_subscription, send_report_to_sse};
}

TestReportActions g_testReportActions = defaultTestReportActions();

namespace {

const char* testReportFifo() {
    return fixedPath(FixedPath::TestReportFifo);
}

// One read is one report: a failure while delivering it drops that report only.
void deliver(const char* report) {
    try {
        RF_LOG(kLogInfo, "[%s():%d]Sending reports to Subscription and SSE");
        g_testReportActions.sendToSubscriptions(report);
        g_testReportActions.sendToSse(report);
    } catch (const std::exception& error) {
        RF_LOG(kLogError, "[%s():%d]Test report dropped: %s", error.what());
    } catch (...) {
        RF_LOG(kLogError, "[%s():%d]Test report dropped");
    }
}

} // namespace

int openTestReportPipe() {
    RF_LOG(kLogInfo, "[%s():%d]Redfish Test report FIFO CREATION");
    int status = mkfifo(testReportFifo(), 0660);
    int error = errno;
    RF_LOG(kLogInfo, "[%s():%d]Redfish Test report FIFO  status = %d , errno = %d  %s", status,
           error, std::strerror(error));
    if (status != 0 && error != EEXIST) {
        return -1;
    }
    RF_LOG(kLogInfo, "[%s():%d]Redfish Test report FIFO created");
    RF_LOG(kLogInfo, "[%s():%d]waiting on TESTREPORTFIFO  %s", testReportFifo());
    int fd = open(testReportFifo(), O_RDONLY);
    RF_LOG(kLogInfo, "[%s():%d]TESTREPORTFIFO Opened %s", testReportFifo());
    if (fd < 0) {
        RF_LOG(kLogError, "[%s():%d]Named pipe open failed");
    }
    return fd;
}

ssize_t readTestReportOnce(char (&buffer)[kTestReportBufferSize], int fd) {
    ssize_t count = read(fd, buffer, kTestReportBufferSize - 1);
    if (count < 0) {
        return count;
    }
    RF_LOG(kLogDebug, "[%s():%d]TESTREPORTFIFO read happened %s", testReportFifo());
    if (count > 0) {
        RF_LOG(kLogInfo, "[%s():%d]TestMetricReport to RF size read  %d\n",
               static_cast<int>(count));
        deliver(buffer);
    }
    std::memset(buffer, 0, kTestReportBufferSize);
    return count;
}

} // namespace rfevent

void* RedfishTestMetricReportThread(void* unused) {
    using namespace rfevent;
    (void)unused;
    char buffer[kTestReportBufferSize] = {};
    RF_LOG(kLogInfo, "[%s():%d]Redfish Test report notify thread start");
    RF_LOG(kLogInfo, "[%s():%d]In funtion \nthread id = %lu\n",
           static_cast<unsigned long>(pthread_self()));
    while (g_testReportFlag.load(std::memory_order_relaxed) == 0) {
        int fd = openTestReportPipe();
        if (fd >= 0) {
            for (;;) {
                ssize_t count = readTestReportOnce(buffer, fd);
                if (count < 0) {
                    break;
                }
                if (count == 0) {
                    sleep(3); // no writer: poll the pipe again later
                }
            }
            close(fd);
        }
        if (g_testReportFlag.load(std::memory_order_relaxed) != 0) {
            break;
        }
        sleep(1);
    }
    RF_LOG(kLogInfo, "[%s():%d]Report notify thread end");
    return nullptr;
}
