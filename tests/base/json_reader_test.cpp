// RF_Json_Reader and the two routing fields of a metric report.
#include <gtest/gtest.h>

#include "base/json.h"
#include "base/report.h"
#include "base/report_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

using rfevent::getMetricReportDefinition;
using rfevent::getReportSequence;

using namespace rfevent::testkit;

namespace {

class JsonReaderTest : public ::testing::Test {
  protected:
    void SetUp() override { resetSandbox(); }
};

TEST_F(JsonReaderTest, ParsesTextAndIgnoresTheThirdArgument) {
    RF_Json_Reader reader;
    Json::Value root;
    EXPECT_TRUE(reader.parse(std::string(R"({"b":1,"a":[true]})"), root, false));
    EXPECT_EQ(root["b"].asInt(), 1);
    Json::Value again;
    EXPECT_TRUE(reader.parse(std::string(R"({"b":1,"a":[true]})"), again));
    EXPECT_EQ(root, again);
}

TEST_F(JsonReaderTest, ParseErrorsAreLogged) {
    RF_Json_Reader reader;
    Json::Value root;
    LogCapture log;
    EXPECT_FALSE(reader.parse(std::string("{nope"), root));
    EXPECT_EQ(log.count(2, "]Errors found : "), 1) << log.dump();
    EXPECT_TRUE(log.contains(4, "Entering parse Function"));
}

TEST_F(JsonReaderTest, ParsesAStreamWithoutClosingIt) {
    std::string path = rooted("/doc.json");
    writeFile(path, R"({"x": "y"})");
    std::ifstream in(path, std::ios::binary);
    RF_Json_Reader reader;
    Json::Value root;
    EXPECT_TRUE(reader.parse(in, root));
    EXPECT_EQ(root["x"].asString(), "y");
    EXPECT_TRUE(in.is_open());
}

TEST_F(JsonReaderTest, DefaultSettingsAcceptComments) {
    RF_Json_Reader reader;
    Json::Value root;
    EXPECT_TRUE(reader.parse(std::string("// note\n{\"a\": 1 /* one */}"), root));
    EXPECT_EQ(root["a"].asInt(), 1);
}

TEST_F(JsonReaderTest, DefinitionFromTheDefinitionLink) {
    const char* report =
        R"({"MetricReportDefinition":{"@odata.id":"/redfish/v1/TelemetryService/MetricReportDefinitions/Power"}})";
    LogCapture log;
    EXPECT_EQ(getMetricReportDefinition(report),
              "/redfish/v1/TelemetryService/MetricReportDefinitions/Power");
    EXPECT_TRUE(log.contains(5, "]found MetricReportDefinition in event"));
    // The error level of this line is deliberate.
    EXPECT_TRUE(log.contains(2, "]foud MetricReportDefinition OdataId in event"));
    EXPECT_TRUE(
        log.contains(5, "]OdataId = /redfish/v1/TelemetryService/MetricReportDefinitions/Power"));
}

TEST_F(JsonReaderTest, NonTextDefinitionIdGivesEmpty) {
    EXPECT_EQ(getMetricReportDefinition(R"({"MetricReportDefinition":{"@odata.id":5}})"), "");
    EXPECT_EQ(getMetricReportDefinition(R"({"MetricReportDefinition":{}})"), "");
}

TEST_F(JsonReaderTest, FallbackNames) {
    EXPECT_EQ(getMetricReportDefinition(R"({"Name":"SerialLog Report"})"),
              "/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog");
    EXPECT_EQ(getMetricReportDefinition(R"({"Name":"CPURegisters Report"})"),
              "/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters");
    LogCapture log;
    EXPECT_EQ(getMetricReportDefinition(R"({"Name":"serialLog Report"})"), "");
    EXPECT_TRUE(log.contains(2, "]Could not find MetricReportDefinition Object in event"));
}

TEST_F(JsonReaderTest, UnparsableReportGivesEmptyDefinition) {
    EXPECT_EQ(getMetricReportDefinition("not json"), "");
}

TEST_F(JsonReaderTest, SequenceAsText) {
    LogCapture log;
    EXPECT_EQ(getReportSequence(R"({"ReportSequence":17})"), "17");
    EXPECT_TRUE(log.contains(5, "]found ReportSequence in Metric Report"));
    EXPECT_EQ(getReportSequence(R"({"ReportSequence":"0042"})"), "0042");
}

TEST_F(JsonReaderTest, MissingSequenceIsSilent) {
    LogCapture log;
    EXPECT_EQ(getReportSequence(R"({"Id":"x"})"), "");
    EXPECT_EQ(log.count(2, "Could not find ReportSequence"), 0);
    EXPECT_TRUE(log.lines().size() > 0);
}

TEST_F(JsonReaderTest, UnparsableTextGivesTwoErrorLines) {
    LogCapture log;
    EXPECT_EQ(getReportSequence("{\"ReportSequence\":"), "");
    EXPECT_EQ(log.count(2, "]Errors found : "), 1) << log.dump();
    EXPECT_EQ(log.count(2, "]Could not find ReportSequence in event"), 1);
}

TEST_F(JsonReaderTest, SequenceOfObjectTypeRaisesTheLibraryError) {
    EXPECT_THROW(getReportSequence(R"({"ReportSequence":{"a":1}})"), Json::LogicError);
}

} // namespace

namespace {

// Text nested deeper than the library allows is a failed parse of both forms, never an
// exception that would end a host module calling the exported reader.
TEST(JsonReaderDepthTest, TooDeepTextIsAFailedParseNotAnException) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    RF_Json_Reader reader;
    Json::Value root;
    rfevent::testkit::LogCapture log;
    bool parsed = true;
    EXPECT_NO_THROW(parsed = reader.parse(deep, root));
    EXPECT_FALSE(parsed);
    const std::string file = rfevent::testkit::rooted("/deep.json");
    rfevent::testkit::writeFile(file, deep);
    std::ifstream in(file);
    EXPECT_NO_THROW(parsed = reader.parse(in, root));
    EXPECT_FALSE(parsed);
    EXPECT_EQ(log.count(2, "Errors found"), 2) << log.dump();
}

} // namespace
