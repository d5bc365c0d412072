// Reading the two routing fields of a metric report. RF_Json_Reader itself is public
// (rfevent/redfish_event.h).
#ifndef RFEVENT_TELEMETRY_JSON_READER_H
#define RFEVENT_TELEMETRY_JSON_READER_H

#include <string>

#include "rfevent/redfish_event.h"

// The URI of the report's definition, or "" (report must not be null).
std::string getMetricReportDefinition(const char* report);
// The report's "ReportSequence" as text, or "" (report must not be null).
std::string getReportSequence(const char* report);

#endif
