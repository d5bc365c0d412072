// Inside the test report thread, for the thread and its tests.
#ifndef RFEVENT_TELEMETRY_TEST_REPORT_THREAD_INTERNAL_H
#define RFEVENT_TELEMETRY_TEST_REPORT_THREAD_INTERNAL_H

#include <cstddef>

#include "base/pipe_thread.h"

namespace rfevent {

constexpr std::size_t kTestReportBufferSize = 1024;

// The test report pipe read into buffer (kTestReportBufferSize bytes): reads of at most 1023
// bytes, each delivered whole to both fan-outs, then the buffer zeroed; three seconds' pause
// when no writer has the pipe open.
PipeThread testReportPipe(char* buffer);

} // namespace rfevent

#endif
