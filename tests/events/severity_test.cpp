#include "events/severity.h"

#include <gtest/gtest.h>

#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

const char kHostKey[] = "System.Embedded.1#ServerOS.1#HostName";

class SeverityTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }
};

TEST_F(SeverityTest, KnownSeverities) {
    EXPECT_STREQ(GetSeverityString(1), "Critical");
    EXPECT_STREQ(GetSeverityString(2), "Warning");
    EXPECT_STREQ(GetSeverityString(3), "Informational");
    EXPECT_STREQ(GetMessageSeverity(1), "Critical");
    EXPECT_STREQ(GetMessageSeverity(2), "Warning");
    EXPECT_STREQ(GetMessageSeverity(3), "OK");
}

TEST_F(SeverityTest, UnknownSeveritiesHaveNoMessageSeverity) {
    for (uint16_t value : {0, 4, 65535}) {
        tk::LogCapture log;
        EXPECT_STREQ(GetSeverityString(value), "Unknown");
        EXPECT_EQ(GetMessageSeverity(value), nullptr);
        EXPECT_EQ(log.count(2, "MessageSeverity is NULL."), 1);
    }
}

TEST_F(SeverityTest, OrvaBlockCarriesTheHostName) {
    tk::setAttribute(kHostKey, "bmc-7");
    Json::Value block(Json::objectValue);
    GetOrvaEvent(block);
    Json::Value expected(Json::objectValue);
    expected["@odata.type"] = "#OrvaEvent.v1_0_0.OrvaEvent";
    expected["ServerHostname"] = "bmc-7";
    EXPECT_EQ(block, expected);
}

TEST_F(SeverityTest, FailedHostNameReadGivesNull) {
    tk::LogCapture log;
    Json::Value block(Json::objectValue);
    GetOrvaEvent(block);
    Json::Value expected(Json::objectValue);
    expected["@odata.type"] = "#OrvaEvent.v1_0_0.OrvaEvent";
    expected["ServerHostname"] = Json::Value(Json::nullValue);
    EXPECT_EQ(block, expected);
    EXPECT_EQ(tk::compactJson(block),
              "{\"@odata.type\":\"#OrvaEvent.v1_0_0.OrvaEvent\",\"ServerHostname\":null}");
    EXPECT_EQ(log.count(2, "Error while getting hostname"), 1);
}

TEST_F(SeverityTest, EmptyHostNameIsAnEmptyString) {
    tk::setAttribute(kHostKey, "");
    Json::Value block(Json::objectValue);
    GetOrvaEvent(block);
    EXPECT_EQ(block["ServerHostname"], Json::Value(""));
}

TEST_F(SeverityTest, HostNameIsReadForEveryEvent) {
    tk::setAttribute(kHostKey, "first");
    Json::Value one(Json::objectValue);
    GetOrvaEvent(one);
    tk::setAttribute(kHostKey, "second");
    Json::Value two(Json::objectValue);
    GetOrvaEvent(two);
    EXPECT_EQ(one["ServerHostname"], Json::Value("first"));
    EXPECT_EQ(two["ServerHostname"], Json::Value("second"));
}

} // namespace
