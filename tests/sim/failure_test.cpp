// How the simulator ends a run that cannot do what was asked: the reason on standard error,
// no success line, and the documented exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/sim_run.h"

namespace {

using rfevent::testkit::runSimulator;
using rfevent::testkit::SimRun;

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

TEST_F(SimulatorFailureTest, HelpStillPrintsTheWholeUsage) {
    SimRun run = runSimulator("--help");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("usage: rfevent-sim", 0), 0u);
    EXPECT_NE(run.out.find("replay ID FILTER"), std::string::npos);
    EXPECT_EQ(run.err, "");
}

} // namespace
