#include "base/builtin_reports.h"
#include "base/builtin_reports_internal.h"

#include <strings.h>

#include <cstring>

namespace rfevent {

std::atomic<int> serialLogSequence{0};
std::atomic<int> cpuRegisterSequence{0};

const BuiltInReport kSerialLogReport = {
    "SerialLog",
    "seriallog",
    sizeof "seriallog" - 1,
    "SerialLog Report",
    "/redfish/v1/TelemetryService/MetricReports/SerialLog",
    "/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog",
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog'",
    FixedPath::SerialLogCapture,
    FixedPath::SerialLogReport,
    FixedPath::SerialLogSequence,
    &serialLogSequence,
};

const BuiltInReport kCpuRegistersReport = {
    "CPURegisters",
    "CPURegisters",
    sizeof "CPURegisters" - 1,
    "CPURegisters Report",
    "/redfish/v1/TelemetryService/MetricReports/CPURegisters",
    "/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters",
    "MetricReportDefinition eq "
    "'/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters'",
    FixedPath::CpuRegisterCapture,
    FixedPath::CpuRegisterReport,
    FixedPath::CpuRegisterSequence,
    &cpuRegisterSequence,
};

namespace {

const BuiltInReport* const kSerialLogFirst[] = {&kSerialLogReport, &kCpuRegistersReport};
const BuiltInReport* const kCpuRegistersFirst[] = {&kCpuRegistersReport, &kSerialLogReport};

// The one rule for names: the given name, over its own length, is a leading part of full. A
// name longer than full never is: its extra character meets full's terminator.
bool isLeadingPart(const char* name, std::size_t length, const char* full, std::size_t fullLength,
                   bool ignoreCase) {
    if (length > fullLength) {
        return false;
    }
    return (ignoreCase ? strncasecmp(name, full, length) : std::strncmp(name, full, length)) == 0;
}

} // namespace

const BuiltInReport* builtInReportOfType(const char* type, BuiltInOrder order) {
    const auto& types =
        order == BuiltInOrder::SerialLogFirst ? kSerialLogFirst : kCpuRegistersFirst;
    for (const BuiltInReport* report : types) {
        if (isLeadingPart(type, std::strlen(type), report->type, std::strlen(report->type),
                          false)) {
            return report;
        }
    }
    return nullptr;
}

static_assert(kLongestBuiltInCommand >= sizeof "seriallog" - 1 &&
                  kLongestBuiltInCommand >= sizeof "CPURegisters" - 1,
              "every command fits the longest command's length");

const BuiltInReport* builtInReportCommandedShort(const char* name, std::size_t length) {
    for (const BuiltInReport* report : kSerialLogFirst) {
        if (isLeadingPart(name, length, report->command, report->commandLength, true)) {
            return report;
        }
    }
    return nullptr;
}

const BuiltInReport* builtInReportByCommand(const std::string& name) {
    for (const BuiltInReport* report : kSerialLogFirst) {
        if (name == report->command) {
            return report;
        }
    }
    return nullptr;
}

const BuiltInReport* builtInReportNamed(const std::string& reportName) {
    // The CPU registers first, as the definition fallback has always tested them.
    for (const BuiltInReport* report : kCpuRegistersFirst) {
        if (reportName == report->reportName) {
            return report;
        }
    }
    return nullptr;
}

} // namespace rfevent
