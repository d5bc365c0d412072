// Inside the parsed report, for tests, fuzz targets and benchmarks: the definition accessor
// over a report's text (the plug-in reads the definition of a report parsed once).
#ifndef RFEVENT_BASE_REPORT_INTERNAL_H
#define RFEVENT_BASE_REPORT_INTERNAL_H

#include <string>

namespace rfevent {

// The URI of the report's definition, or "" (report must not be null).
std::string getMetricReportDefinition(const char* report);

} // namespace rfevent

#endif
