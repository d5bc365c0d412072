// Read-only lookups of metric reports in the telemetry service's database.
#ifndef RFEVENT_TELEMETRY_REPORT_DB_H
#define RFEVENT_TELEMETRY_REPORT_DB_H

namespace rfevent {

// The JSON text of the named report (caller frees), or null.
char* execute_report_views(const char* reportName);

} // namespace rfevent

#endif
