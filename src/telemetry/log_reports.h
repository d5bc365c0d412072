// The serial-log and CPU-register reports, built by the plug-in from capture files.
#ifndef RFEVENT_TELEMETRY_LOG_REPORTS_H
#define RFEVENT_TELEMETRY_LOG_REPORTS_H

#include "base/builtin_reports.h"

namespace rfevent {

// Builds, stores and publishes the built-in report of type from its capture.
void sendBuiltInReport(const BuiltInReport& type);

} // namespace rfevent

#endif
