// The table of built-in report types and its rules for names.
#include <gtest/gtest.h>

#include <cstring>

#include "base/builtin_reports.h"

namespace {

using rfevent::BuiltInOrder;
using rfevent::kCpuRegistersReport;
using rfevent::kSerialLogReport;

TEST(BuiltInReports, TypeNamesMatchOverTheirOwnLengthCaseSensitive) {
    EXPECT_EQ(&kSerialLogReport,
              rfevent::builtInReportOfType("SerialLog", BuiltInOrder::CpuRegistersFirst));
    EXPECT_EQ(&kCpuRegistersReport,
              rfevent::builtInReportOfType("CPU", BuiltInOrder::SerialLogFirst));
    EXPECT_EQ(nullptr, rfevent::builtInReportOfType("serialLog", BuiltInOrder::SerialLogFirst));
    EXPECT_EQ(nullptr, rfevent::builtInReportOfType("SerialLogX", BuiltInOrder::SerialLogFirst));
}

TEST(BuiltInReports, AnEmptyTypeNameIsTheTypeTestedFirst) {
    EXPECT_EQ(&kSerialLogReport, rfevent::builtInReportOfType("", BuiltInOrder::SerialLogFirst));
    EXPECT_EQ(&kCpuRegistersReport,
              rfevent::builtInReportOfType("", BuiltInOrder::CpuRegistersFirst));
}

TEST(BuiltInReports, CommandsMatchAsLeadingPartsInAnyCase) {
    EXPECT_EQ(&kSerialLogReport, rfevent::builtInReportCommanded("SERIAL", 6));
    EXPECT_EQ(&kSerialLogReport, rfevent::builtInReportCommanded("", 0));
    EXPECT_EQ(&kCpuRegistersReport, rfevent::builtInReportCommanded("cpuregisters", 12));
    EXPECT_EQ(nullptr, rfevent::builtInReportCommanded("CPURegistersX", 13));
    EXPECT_EQ(nullptr, rfevent::builtInReportCommanded("Power", 5));
}

TEST(BuiltInReports, StoredReportsAreFoundByTheExactCommand) {
    EXPECT_EQ(&kSerialLogReport, rfevent::builtInReportByCommand("seriallog"));
    EXPECT_EQ(&kCpuRegistersReport, rfevent::builtInReportByCommand("CPURegisters"));
    EXPECT_EQ(nullptr, rfevent::builtInReportByCommand("SerialLog"));
}

TEST(BuiltInReports, ReportNamesGiveTheDefinitionFallback) {
    EXPECT_EQ(&kSerialLogReport, rfevent::builtInReportNamed("SerialLog Report"));
    EXPECT_EQ(&kCpuRegistersReport, rfevent::builtInReportNamed("CPURegisters Report"));
    EXPECT_EQ(nullptr, rfevent::builtInReportNamed("serialLog Report"));
    EXPECT_STREQ("/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog",
                 kSerialLogReport.definitionUri);
}

} // namespace
