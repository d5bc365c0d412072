// Test reports written whole into a pipe by the server's test facility.
#ifndef RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H
#define RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H

void* RedfishTestMetricReportThread(void* unused);

#endif
