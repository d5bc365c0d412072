// How the simulator ends a run that cannot do what was asked: the reason on standard error,
// no success line, and the documented exit status; and the README's examples, which must run
// as written in a fresh sandbox.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "harness/sandbox.h"
#include "sim/sim_run.h"

namespace {

using rfevent::testkit::runSimulator;
using rfevent::testkit::sandboxRoot;
using rfevent::testkit::shellQuoted;
using rfevent::testkit::SimRun;

constexpr const char* kSuccess = "every expected delivery arrived";

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

class SimulatorFailureTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }
};

// A usage error is one line that says what was wrong, and where the usage is; nothing else.
TEST_F(SimulatorFailureTest, UsageErrorIsOneLineAndAPointerToHelp) {
    struct Case {
        const char* arguments;
        const char* reason;
    };
    for (const Case& c :
         {Case{"", "no command given"}, Case{"--bogus demo", "unknown option --bogus"},
          Case{"frobnicate", "unknown command frobnicate"},
          Case{"replay 7", "the command is: replay ID FILTER"},
          Case{"demo extra", "the command is: demo"},
          Case{"alert --severity 9", "--severity takes"},
          Case{"--timeout 0 demo", "--timeout takes seconds"}}) {
        SimRun run = runSimulator(c.arguments);
        SCOPED_TRACE(std::string(c.arguments) + "\n" + run.output);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        std::vector<std::string> err = lines(run.err);
        ASSERT_EQ(err.size(), 2u);
        EXPECT_EQ(err[0].rfind("rfevent-sim: ", 0), 0u);
        EXPECT_NE(err[0].find(c.reason), std::string::npos);
        EXPECT_EQ(err[1], "Try 'rfevent-sim --help' for the commands and options.");
    }
}

TEST_F(SimulatorFailureTest, ReplayIdMustBeAReportSequence) {
    for (const char* id : {"abc", "7x", "1.5", "+7", "123456789012345678901"}) {
        SimRun run =
            runSimulator(std::string("replay ") + id + " 'EventFormatType eq MetricReport'");
        SCOPED_TRACE(std::string(id) + "\n" + run.output);
        EXPECT_EQ(run.status, 2);
        EXPECT_NE(run.err.find("replay ID is the report sequence"), std::string::npos);
        EXPECT_NE(run.err.find(std::string("not \"") + id + "\""), std::string::npos);
        EXPECT_EQ(run.out, "");
    }
    SimRun empty = runSimulator("replay 7 ''");
    EXPECT_EQ(empty.status, 2);
    EXPECT_NE(empty.err.find("replay FILTER must not be empty"), std::string::npos);
}

// Input the command cannot use ends the run before anything is set up: one line on stderr
// with the reason, nothing on stdout, status 2.
TEST_F(SimulatorFailureTest, UnusableInputStopsTheRunWithItsReason) {
    std::string empty = sandboxRoot() + "/empty.json";
    std::ofstream(empty).close();
    std::string large = sandboxRoot() + "/large.json";
    std::ofstream(large) << std::string(1024, ' ');
    struct Case {
        std::string arguments;
        std::string reason;
    };
    for (const Case& c :
         {Case{"report NoSuchReport", "rfevent-sim: no report \"NoSuchReport\" in the telemetry "
                                      "database; it holds: PowerMetrics ThermalMetrics\n"},
          Case{"test-report /nonexistent/report.json",
               "rfevent-sim: cannot read /nonexistent/report.json: No such file or directory\n"},
          Case{"test-report " + shellQuoted(sandboxRoot()),
               "rfevent-sim: cannot read " + sandboxRoot() + ": Is a directory\n"},
          Case{"test-report " + shellQuoted(empty),
               "rfevent-sim: " + empty +
                   " is empty; a test report is a report JSON of 1 to 1023 bytes\n"},
          Case{"test-report " + shellQuoted(large),
               "rfevent-sim: " + large +
                   " holds more than 1023 bytes; a test report is a report JSON of 1 to 1023 "
                   "bytes\n"}}) {
        SimRun run = runSimulator(c.arguments);
        SCOPED_TRACE(c.arguments + "\n" + run.output);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, c.reason);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.output.find(kSuccess), std::string::npos);
    }
}

// Deliveries that do not arrive in time: status 1, the gaps in the summary, the reason on
// stderr. The plug-in posts a report about 2 s after its announcement, later than 1 s.
TEST_F(SimulatorFailureTest, MissingDeliveriesFailWithTheReasonOnStderr) {
    // The plug-in given last is one that delivers nothing, so nothing can arrive in time.
    SimRun run = runSimulator("--timeout 1 --plugin " + std::string(RFEVENT_SILENT_PLUGIN) +
                              " report PowerMetrics");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("Result: 5 expectation(s) not met\n"), std::string::npos);
    EXPECT_NE(run.out.find("  - destination reports: 0 of 1\n"), std::string::npos);
    EXPECT_NE(run.out.find("  - destination refusing: 0 of 1\n"), std::string::npos);
    EXPECT_EQ(run.err, "rfevent-sim: 5 expectation(s) not met; the summary above lists them\n");
    EXPECT_EQ(run.output.find(kSuccess), std::string::npos);
}

// A replay that matches no stored report expects nothing, and says so instead of success.
TEST_F(SimulatorFailureTest, ReplayOfAnUnknownSequenceClaimsNoSuccess) {
    SimRun run =
        runSimulator("replay 17 \"MetricReportDefinition eq "
                     "'/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics'\"");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("has sequence 7, not 17: the plug-in should send nothing"),
              std::string::npos);
    EXPECT_NE(run.out.find("PowerMetrics (sequence 7) ThermalMetrics (sequence 12)"),
              std::string::npos);
    EXPECT_NE(run.out.find("Result: no delivery was expected\n"), std::string::npos);
    EXPECT_EQ(run.out.find(kSuccess), std::string::npos);
}

#ifdef RFEVENT_SIM_SAMPLES
// The README's example: the shipped sample report through the test pipe.
TEST_F(SimulatorFailureTest, SampleTestReportIsDelivered) {
    SimRun run = runSimulator("test-report " +
                              shellQuoted(std::string(RFEVENT_SIM_SAMPLES) + "/report.json"));
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find(std::string("Result: ") + kSuccess), std::string::npos);
    EXPECT_NE(run.out.find("PowerMetrics (seq 21)"), std::string::npos);
    EXPECT_EQ(run.err, "");
}
#endif

// The README's example: in a fresh sandbox the CPU-register report is announced first, and
// its sequence 1 is then replayed whole.
TEST_F(SimulatorFailureTest, ReplayInAFreshSandboxHasAReportToReplay) {
    SimRun run =
        runSimulator("replay 1 \"MetricReportDefinition eq "
                     "'/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters'\"");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("announced first, to have one to replay"), std::string::npos);
    EXPECT_NE(run.out.find("report \"CPURegisters\" sequence 1: the whole report is replayed"),
              std::string::npos);
    EXPECT_NE(run.out.find(std::string("Result: ") + kSuccess), std::string::npos);
}

TEST_F(SimulatorFailureTest, HelpStillPrintsTheWholeUsage) {
    SimRun run = runSimulator("--help");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("usage: rfevent-sim", 0), 0u);
    EXPECT_NE(run.out.find("replay ID FILTER"), std::string::npos);
    EXPECT_EQ(run.err, "");
}

} // namespace
