// Runs the built host simulator (tools/rfevent-sim) as a separate process against the built
// plug-in: the scripted demo must see every delivery arrive, and bad command lines must end
// with status 2.
#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "harness/json_schema.h"
#include "sim/sim_run.h"

using namespace rfevent;

namespace {

namespace fs = std::filesystem;
using rfevent::testkit::runSimulator;
using rfevent::testkit::SimRun;
using rfevent::testkit::simulatorPath;

// True when a summary row starts with `name` and shows `expected` and `received` then "ok".
bool summaryRowOk(const std::string& output, const std::string& name, int expected) {
    std::string pattern =
        "\\n  " + std::regex_replace(name, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
        " [^\\n]*\\b" + std::to_string(expected) + " +" + std::to_string(expected) + " +ok\\n";
    return std::regex_search(output, std::regex(pattern));
}

class SimulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        ASSERT_TRUE(fs::exists(simulatorPath())) << simulatorPath();
    }
};

TEST_F(SimulatorTest, DemoDeliversEverythingItExpects) {
    SimRun run = runSimulator("demo");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("\nSummary\n"), std::string::npos);
    EXPECT_NE(run.output.find("Result: every expected delivery arrived"), std::string::npos);
    EXPECT_TRUE(summaryRowOk(run.output, "alerts", 3));
    EXPECT_TRUE(summaryRowOk(run.output, "reports", 4));
    EXPECT_TRUE(summaryRowOk(run.output, "power-reports", 1));
    EXPECT_TRUE(summaryRowOk(run.output, "EventFormatType eq Event", 3));
    EXPECT_TRUE(summaryRowOk(run.output, "EventFormatType eq MetricReport", 2));
    EXPECT_NE(run.output.find("Event-log entries: 1 new"), std::string::npos);
    EXPECT_NE(run.output.find("SubscriptionStateAfterRetry=Disabled                  ok"),
              std::string::npos);
    EXPECT_NE(run.output.find("Plug-in unloaded."), std::string::npos);
}

// The refusing collector gets every report, answers 413, and the delivery status says so: in
// the summary, in the file (which matches its schema) and in the status command's table.
TEST_F(SimulatorTest, DemoShowsARefusedDeliveryEndToEnd) {
    const std::string root = rfevent::testkit::sandboxRoot() + "/kept";
    SimRun run = runSimulator("--root " + rfevent::testkit::shellQuoted(root) + " demo");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(summaryRowOk(run.output, "refusing", 4));
    EXPECT_TRUE(std::regex_search(run.output, std::regex("\\n  refusing [^\\n]* 0/4/0 ")));
    EXPECT_TRUE(std::regex_search(run.output, std::regex("\\n  unreachable [^\\n]* 0/0/2 ")));
    const std::string file = root + "/var/run/rfevent/delivery-status.json";
    const Json::Value status = rfevent::testkit::parseJson(rfevent::testkit::readFile(file));
    EXPECT_TRUE(rfevent::testkit::schemaViolations(rfevent::testkit::deliveryStatusSchema(), status)
                    .empty());
    EXPECT_EQ(status["5"]["LastOutcome"].asString(), "refused");
    EXPECT_EQ(status["5"]["LastHttpStatus"].asInt(), 413);
    const std::string log = rfevent::testkit::readFile(root + "/var/lib/rfevent/plugin.log");
    const std::regex refusedLine("<2> \\[139\\] \\[[a-zA-Z]+\\(\\):[0-9]+\\]Destination "
                                 "https://127\\.0\\.0\\.1:[0-9]+/events/refusing of subscription 5 "
                                 "refused the delivery: HTTP 413; counted as delivered\\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), refusedLine),
                            std::sregex_iterator()),
              1)
        << log;
    SimRun table = runSimulator("status --root " + rfevent::testkit::shellQuoted(root));
    EXPECT_EQ(table.status, 0);
    EXPECT_TRUE(std::regex_search(table.out, std::regex("\\n  5 +refused +413 +4 +0 +4 +0 ")))
        << table.out;
}

TEST_F(SimulatorTest, SingleAlertReachesItsDestinationAndTheSseClient) {
    SimRun run = runSimulator(
        "alert --severity warning --event-id 77 --message-id FAN0001 --message 'Fan slow' "
        "--arg 3 --arg 1200 --fqdd Fan.Embedded.3 --member-id 4");
    SCOPED_TRACE(run.output);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(summaryRowOk(run.output, "alerts", 1));
    EXPECT_TRUE(summaryRowOk(run.output, "EventFormatType eq Event", 1));
    EXPECT_NE(run.output.find("EventId 77 TAVIK.2.8.FAN0001"), std::string::npos);
}

TEST_F(SimulatorTest, BadCommandLinesGetStatusTwo) {
    for (const char* arguments :
         {"", "--bogus demo", "frobnicate", "replay 1", "report", "demo extra",
          "alert --severity 9", "alert --event-id 12x", "--timeout 0 demo", "demo --severity 1",
          "--root", "test-report /nonexistent/report.json", "report NoSuchReport"}) {
        SimRun run = runSimulator(arguments);
        SCOPED_TRACE(std::string(arguments) + "\n" + run.output);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.output.find("Segmentation"), std::string::npos);
    }
    SimRun help = runSimulator("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("usage: rfevent-sim"), std::string::npos);
}

} // namespace
