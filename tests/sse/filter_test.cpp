// Matching SSE clients' filters against metric reports, and the fan-out over the real socket.
#include <gtest/gtest.h>

#include <chrono>
#include <list>
#include <string>
#include <vector>

#include <json/json.h>

#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"
#include "sse/filter.h"
#include "sse/filter_internal.h"

using namespace rfevent;

namespace {

using rfevent::testkit::kEventDeadline;
using rfevent::testkit::LogCapture;
using rfevent::testkit::SseReceiver;

const std::string kSerialLogUri = "/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog";

// A metric report whose definition is uri; padded with a metric value to exactly `size` bytes.
std::string makeReport(const std::string& uri, const Json::Value& sequence = "5",
                       std::size_t size = 0) {
    Json::Value report;
    report["@odata.id"] = "/redfish/v1/TelemetryService/MetricReports/R";
    if (!uri.empty()) {
        report["MetricReportDefinition"]["@odata.id"] = uri;
    }
    if (!sequence.isNull()) {
        report["ReportSequence"] = sequence;
    }
    std::string text = rfevent::testkit::compactJson(report);
    if (size > 0) {
        report["MetricValues"][0]["MetricValue"] = "";
        const std::size_t overhead = rfevent::testkit::compactJson(report).size();
        report["MetricValues"][0]["MetricValue"] = std::string(size - overhead, 'v');
        text = rfevent::testkit::compactJson(report);
    }
    return text;
}

// The SSE subscription file with one client per filter text, named c0, c1, ...
void writeClients(const std::vector<std::string>& filters) {
    Json::Value clients(Json::objectValue);
    for (std::size_t i = 0; i < filters.size(); ++i) {
        clients["c" + std::to_string(i)]["Event-type"] = filters[i];
        clients["c" + std::to_string(i)]["Other"] = 1;
    }
    rfevent::testkit::writeSseSubscriptions(clients);
}

class SseFilterTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }

    // The filter texts of the messages filterEventsSSE builds for report.
    static std::vector<std::string> matchingFilters(const std::string& report, int expected) {
        std::list<std::string> messages;
        EXPECT_EQ(filterEventsSSE(report.c_str(), messages, "<id:5>:"), expected);
        std::vector<std::string> filters;
        for (const auto& message : messages) {
            const std::string tail = "=<id:5>:" + report;
            EXPECT_EQ(message.substr(message.size() - tail.size()), tail);
            filters.push_back(message.substr(0, message.size() - tail.size()));
        }
        return filters;
    }
};

TEST_F(SseFilterTest, WholeMatchSelectsEveryReport) {
    writeClients({"EventFormatType eq MetricReport"});
    LogCapture log;
    EXPECT_EQ(matchingFilters(makeReport("/any/thing"), 0),
              std::vector<std::string>{"EventFormatType eq MetricReport"});
    EXPECT_EQ(log.count(4, "Filter match found:EventFormatType eq MetricReport"), 1);
    EXPECT_TRUE(log.contains(5, "The MetricReportDefnition is /any/thing"));
    EXPECT_TRUE(log.contains(4, "Event-Type: EventFormatType eq MetricReport"));
}

TEST_F(SseFilterTest, DefinitionTermWithQuotesWithoutQuotesAndInParentheses) {
    const std::vector<std::string> filters = {
        "MetricReportDefinition eq '" + kSerialLogUri + "'",
        "MetricReportDefinition eq " + kSerialLogUri,
        "(MetricReportDefinition eq '" + kSerialLogUri + "')",
        "(MetricReportDefinition eq " + kSerialLogUri + ")",
        "MetricReportDefinition eq '" + kSerialLogUri + "/'",
    };
    writeClients(filters);
    EXPECT_EQ(matchingFilters(makeReport(kSerialLogUri), 0),
              std::vector<std::string>(filters.begin(), filters.begin() + 4));
}

TEST_F(SseFilterTest, WholeMatchInsideALongerFilterSelectsNothingByItself) {
    writeClients({"EventFormatType eq MetricReport or MetricReportDefinition eq '/x'"});
    EXPECT_EQ(matchingFilters(makeReport("/x"), 0),
              std::vector<std::string>{
                  "EventFormatType eq MetricReport or MetricReportDefinition eq '/x'"});
    EXPECT_TRUE(matchingFilters(makeReport("/y"), 2).empty());
}

TEST_F(SseFilterTest, OrSeparatedTermsEachSelect) {
    writeClients({"MetricReportDefinition eq '/x' or (MetricReportDefinition eq '/y')"});
    EXPECT_EQ(matchingFilters(makeReport("/x"), 0).size(), 1u);
    EXPECT_EQ(matchingFilters(makeReport("/y"), 0).size(), 1u);
    EXPECT_TRUE(matchingFilters(makeReport("/z"), 2).empty());
}

TEST_F(SseFilterTest, UpperCaseOrIsNotASeparator) {
    writeClients({"MetricReportDefinition eq '/x' OR MetricReportDefinition eq '/y'"});
    EXPECT_TRUE(matchingFilters(makeReport("/x"), 2).empty());
    EXPECT_TRUE(matchingFilters(makeReport("/y"), 2).empty());
}

TEST_F(SseFilterTest, LeadingBlankPassesThePositionTestButNeverMatches) {
    writeClients({" MetricReportDefinition eq '/x'", "  MetricReportDefinition eq /x",
                  "   MetricReportDefinition eq /x"});
    LogCapture log;
    EXPECT_TRUE(matchingFilters(makeReport("/x"), 2).empty());
    // One and two leading blanks reach removeBraces (shifted value); three do not.
    EXPECT_EQ(log.count(4, "Input removeBraces:  MetricReportDefinition eq '/x'"), 1);
    EXPECT_EQ(log.count(4, "Input removeBraces:   MetricReportDefinition eq /x"), 1);
    EXPECT_EQ(log.count(4, "Input removeBraces:    MetricReportDefinition eq /x"), 0);
}

TEST_F(SseFilterTest, IdenticalFilterTextsShareOneMessage) {
    writeClients({"EventFormatType eq MetricReport", "MetricReportDefinition eq '/x'",
                  "EventFormatType eq MetricReport"});
    EXPECT_EQ(matchingFilters(makeReport("/x"), 0),
              (std::vector<std::string>{"EventFormatType eq MetricReport",
                                        "MetricReportDefinition eq '/x'"}));
}

TEST_F(SseFilterTest, MembersFollowTheirNameOrder) {
    Json::Value clients;
    clients["b"]["Event-type"] = "EventFormatType eq MetricReport";
    clients["a"]["Event-type"] = "MetricReportDefinition eq '/x'";
    clients["c"]["NoFilter"] = "EventFormatType eq MetricReport";
    rfevent::testkit::writeSseSubscriptions(clients);
    EXPECT_EQ(matchingFilters(makeReport("/x"), 0),
              (std::vector<std::string>{"MetricReportDefinition eq '/x'",
                                        "EventFormatType eq MetricReport"}));
}

TEST_F(SseFilterTest, EmptySubscriptionFileMatchesNothing) {
    rfevent::testkit::writeSseSubscriptions(Json::Value(Json::objectValue));
    LogCapture log;
    EXPECT_TRUE(matchingFilters(makeReport("/x"), 2).empty());
    // No error of its own; the only error-level line is the definition reader's own.
    EXPECT_EQ(log.count(2, ""), log.count(2, "foud MetricReportDefinition OdataId")) << log.dump();
}

TEST_F(SseFilterTest, FailuresGiveOne) {
    std::list<std::string> messages;
    LogCapture log;
    EXPECT_EQ(filterEventsSSE(nullptr, messages, "<id:>:"), 1);
    EXPECT_TRUE(log.contains(2, "Invalid event data"));
    EXPECT_EQ(filterEventsSSE(makeReport("").c_str(), messages, "<id:>:"), 1);
    EXPECT_TRUE(log.contains(2, "Could not find MetricReportDefinition in event"));
    EXPECT_EQ(filterEventsSSE(makeReport("/x").c_str(), messages, "<id:>:"), 1);
    EXPECT_TRUE(log.contains(4, "Subscription file does not existn"));
    rfevent::testkit::writeFile(
        rfevent::testkit::rooted("/var/run/lumenrest/sse_subscriptions.json"), "{ not json");
    EXPECT_EQ(filterEventsSSE(makeReport("/x").c_str(), messages, "<id:>:"), 1);
    EXPECT_TRUE(log.contains(2, "Fail to parse event subscription file"));
    EXPECT_TRUE(messages.empty());
}

TEST_F(SseFilterTest, EventTypeThatIsNotTextSkipsThatClientOnly) {
    Json::Value clients;
    clients["a"]["Event-type"]["nested"] = 1;
    clients["b"]["Event-type"] = Json::Value(Json::arrayValue);
    clients["c"]["Event-type"] = "EventFormatType eq MetricReport";
    rfevent::testkit::writeSseSubscriptions(clients);
    std::list<std::string> messages;
    LogCapture log;
    EXPECT_EQ(filterEventsSSE(makeReport("/x").c_str(), messages, "<id:>:"), 0);
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(log.count(2, "SSE subscription skipped: Event-type is not text"), 2) << log.dump();
}

TEST_F(SseFilterTest, RemoveBracesStripsOnePairOfEachParenthesesFirst) {
    EXPECT_EQ(removeBraces("('x')"), "x");
    EXPECT_EQ(removeBraces("'(x)'"), "(x)");
    EXPECT_EQ(removeBraces("((x))"), "(x)");
    EXPECT_EQ(removeBraces("(x"), "(x");
    EXPECT_EQ(removeBraces("('x'"), "('x'");
    EXPECT_EQ(removeBraces("(')"), "");
    EXPECT_EQ(removeBraces("''"), "");
    EXPECT_EQ(removeBraces("("), "(");
    EXPECT_EQ(removeBraces(""), "");
    EXPECT_EQ(removeBraces("'x"), "'x");
    LogCapture log;
    removeBraces("(");
    EXPECT_EQ(log.countAny("Output:"), 0);
    removeBraces("(ab");
    EXPECT_EQ(log.count(4, "Output: (ab"), 1);
}

TEST_F(SseFilterTest, SplitDropsEmptyPieces) {
    using Pieces = std::list<std::string>;
    EXPECT_EQ(split("a|b", "|"), (Pieces{"a", "b"}));
    EXPECT_EQ(split("|a||b|", "|"), (Pieces{"a", "b"}));
    EXPECT_EQ(split("abc", "|"), (Pieces{"abc"}));
    EXPECT_EQ(split("", "|"), Pieces{});
    EXPECT_EQ(split("|", "|"), Pieces{});
    EXPECT_EQ(split("x or y or z", " or "), (Pieces{"x", "y", "z"}));
    LogCapture log;
    split("a|b|c", "|");
    EXPECT_EQ(log.count(4, "Split data count: 3"), 1);
}

class SseFanOutTest : public SseFilterTest {
  protected:
    SseReceiver receiver{{"", SseReceiver::portFromEnvironment()}};
};

TEST_F(SseFanOutTest, ShortReportIsMessageThenEndMarkerPerFilter) {
    writeClients({"EventFormatType eq MetricReport", "MetricReportDefinition eq '/x'",
                  "MetricReportDefinition eq '/other'"});
    const std::string report = makeReport("/x", 17);
    LogCapture log;
    EXPECT_EQ(send_report_to_sse(report.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(4, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{"EventFormatType eq MetricReport=<id:17>:" + report,
                                        "EventFormatType eq MetricReport=<END>",
                                        "MetricReportDefinition eq '/x'=<id:17>:" + report,
                                        "MetricReportDefinition eq '/x'=<END>"}));
    EXPECT_EQ(log.count(4, "filterEventsSSE is success with 2 clients"), 1);
    EXPECT_EQ(log.count(4, "Send to SSE, processing client 1 "), 1);
}

TEST_F(SseFanOutTest, ReportWithoutSequenceHasAnEmptyIdMarker) {
    writeClients({"EventFormatType eq MetricReport"});
    const std::string report = makeReport("/x", Json::Value());
    EXPECT_EQ(send_report_to_sse(report.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(receiver.pieces()[0], "EventFormatType eq MetricReport=<id:>:" + report);
}

TEST_F(SseFanOutTest, MessageOfExactly4096BytesIsOnePiece) {
    const std::string key = "EventFormatType eq MetricReport";
    writeClients({key});
    const std::string marker = "=<id:5>:";
    const std::string report = makeReport("/x", "5", 4096 - key.size() - marker.size());
    ASSERT_EQ(key.size() + marker.size() + report.size(), 4096u);
    EXPECT_EQ(send_report_to_sse(report.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(2, kEventDeadline));
    EXPECT_EQ(receiver.pieces(), (std::vector<std::string>{key + marker + report, key + "=<END>"}));
}

TEST_F(SseFanOutTest, MessageOf4097BytesIsChunked) {
    const std::string key = "EventFormatType eq MetricReport";
    writeClients({key});
    const std::string marker = "=<id:5>:";
    const std::string report = makeReport("/x", "5", 4097 - key.size() - marker.size());
    const std::string message = key + marker + report;
    ASSERT_EQ(message.size(), 4097u);
    EXPECT_EQ(send_report_to_sse(report.c_str()), 0);
    ASSERT_TRUE(receiver.waitForPieces(3, kEventDeadline));
    EXPECT_EQ(receiver.pieces(),
              (std::vector<std::string>{message.substr(0, 4096), key + "=" + message.substr(4096),
                                        key + "=<END>"}));
}

TEST_F(SseFanOutTest, NothingSentWhenNothingMatchesOrTheReportIsNull) {
    rfevent::testkit::writeSseSubscriptions(Json::Value(Json::objectValue));
    LogCapture log;
    EXPECT_EQ(send_report_to_sse(makeReport("/x").c_str()), 0);
    EXPECT_EQ(send_report_to_sse(nullptr), 0);
    EXPECT_TRUE(log.contains(2, "Report is NULL"));
    // Only the marker sent after both calls arrives: neither call sent anything.
    ASSERT_TRUE(receiver.sendMarker(kEventDeadline));
    EXPECT_EQ(receiver.pieces(), std::vector<std::string>{SseReceiver::kMarker});
}

} // namespace
