// The thread that relays whole test reports written into the test report pipe.
#ifndef RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H
#define RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H

namespace rfevent {

// Thread body; its argument is the thread's run flag (rfevent::RunFlag*). Returns null once the
// flag is found raised.
void* RedfishTestMetricReportThread(void* runFlag);

} // namespace rfevent

#endif
