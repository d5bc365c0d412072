// Test reports written whole into a pipe by the server's test facility.
#ifndef RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H
#define RFEVENT_TELEMETRY_TEST_REPORT_THREAD_H

#include <sys/types.h>

#include <cstddef>

void* RedfishTestMetricReportThread(void* unused);

namespace rfevent {

constexpr std::size_t kTestReportBufferSize = 1024;

// Where a test report goes. The thread uses the real fan-outs; tests may swap them.
struct TestReportActions {
    int (*sendToSubscriptions)(const char* report);
    int (*sendToSse)(const char* report);
};

extern TestReportActions g_testReportActions;
TestReportActions defaultTestReportActions();

// Creates the test report pipe and opens it for reading (blocks until a writer opens it).
// Returns the descriptor, or -1 when the pipe could not be created or opened.
int openTestReportPipe();

// One read of at most 1023 bytes into buffer; a non-empty read is delivered whole to both
// fan-outs. The buffer is zeroed afterwards. Returns read()'s result.
ssize_t readTestReportOnce(char (&buffer)[kTestReportBufferSize], int fd);

} // namespace rfevent

#endif
