// Metric report texts as they come from the telemetry database or the test report pipe,
// through the two routing-field readers.
#ifndef RFEVENT_FUZZ_METRIC_REPORT_H
#define RFEVENT_FUZZ_METRIC_REPORT_H

#include <exception>
#include <string>

#include "base/json.h"
#include "base/report.h"
#include "base/report_internal.h"
#include "fuzz_support.h"

namespace rfevent::fuzz {

inline int metricReport(const uint8_t* data, std::size_t size) {
    ensureRoot();
    const std::string report = cText(std::string(reinterpret_cast<const char*>(data), size));
    // Type errors of jsoncpp propagate from these readers by design; the thread that calls
    // them drops the report. Only memory errors and crashes are findings here.
    try {
        (void)getMetricReportDefinition(report.c_str());
    } catch (const std::exception&) {
    }
    try {
        (void)getReportSequence(report.c_str());
    } catch (const std::exception&) {
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_METRIC_REPORT_H
