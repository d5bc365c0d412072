#include "events/event_record.h"
#include "events/event_record_internal.h"

#include <gtest/gtest.h>

#include <regex>

#include "alert_record.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

class EventRecordTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }
};

TEST_F(EventRecordTest, FieldsAreReadLittleEndianFromAnOddAddress) {
    tk::AlertFields f = tk::fullAlert();
    f.eventId = -2;
    f.severity = 0x0102;
    tk::AlertRecord record(f);
    ASSERT_NE(reinterpret_cast<uintptr_t>(record.header()) % 2, 0u);
    EXPECT_EQ(rfevent::recordI32(record.header(), rfevent::kRecordEventId), -2);
    EXPECT_EQ(rfevent::recordU16(record.header(), rfevent::kRecordSeverity), 0x0102);
    EXPECT_EQ(rfevent::recordI32(record.header(), rfevent::kRecordMemberId), 77);
    EXPECT_STREQ(rfevent::recordText(record.header(), rfevent::kRecordMessageId), "TVK0001");
    EXPECT_STREQ(rfevent::recordText(record.header(), rfevent::kRecordFqdd), f.fqdd->c_str());
}

TEST_F(EventRecordTest, FullRecordComposesEveryKey) {
    tk::AlertRecord record(tk::fullAlert());
    Json::Value context("ctx");
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", &context);
    Json::Value expected = tk::expectedEvent(
        record.fields(), "T",
        "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers/RAID.Integrated.1-1", &context);
    EXPECT_EQ(tk::compactJson(event), tk::compactJson(expected));
    EXPECT_TRUE(event["MessageArgs@odata.count"].isInt());
}

TEST_F(EventRecordTest, EmptyRecordStillHasTheFixedKeys) {
    tk::AlertFields f;
    f.severity = 3;
    tk::AlertRecord record(f);
    tk::LogCapture log;
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    Json::Value expected(Json::objectValue);
    expected["EventType"] = "Alert";
    expected["EventId"] = "0";
    expected["EventTimestamp"] = "T";
    expected["Severity"] = "Informational";
    expected["MessageSeverity"] = "OK";
    EXPECT_EQ(event, expected);
    EXPECT_EQ(log.count(2, "]No MemberID"), 1);
    EXPECT_EQ(log.count(4, "]No Message ID"), 1);
    EXPECT_EQ(log.count(4, "]No Message"), 2); // "No Message ID" and "No Message"
    EXPECT_EQ(log.count(4, "]Message Arguments is not present in DM Structure"), 1);
    EXPECT_EQ(log.count(4, "]No offsetFQDD"), 1);
}

TEST_F(EventRecordTest, EventIdKeepsSevenCharacters) {
    tk::AlertFields f;
    f.eventId = 123456789;
    tk::AlertRecord record(f);
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    EXPECT_EQ(event["EventId"], Json::Value("1234567"));
    f.eventId = -1234567;
    tk::AlertRecord negative(f);
    event = rfevent::composeAlertEvent(negative.header(), "T", nullptr);
    EXPECT_EQ(event["EventId"], Json::Value("-123456"));
}

TEST_F(EventRecordTest, ArgumentListEndsAtTheEmptyString) {
    tk::AlertFields f;
    f.args = std::vector<std::string>{"a", "b"};
    tk::AlertRecord record(f);
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    Json::Value args(Json::arrayValue);
    args.append("a");
    args.append("b");
    EXPECT_EQ(event["MessageArgs"], args);
    EXPECT_EQ(event["MessageArgs@odata.count"], Json::Value(2));
}

TEST_F(EventRecordTest, ArgumentListStartingWithNulGivesNoKey) {
    tk::AlertFields f;
    f.args = std::vector<std::string>{};
    tk::AlertRecord record(f);
    tk::LogCapture log;
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    EXPECT_FALSE(event.isMember("MessageArgs"));
    EXPECT_FALSE(event.isMember("MessageArgs@odata.count"));
    EXPECT_EQ(log.count(4, "]No Message Arguments"), 1);
}

TEST_F(EventRecordTest, UnknownSeverityHasNoMessageSeverity) {
    tk::AlertFields f;
    f.severity = 9;
    tk::AlertRecord record(f);
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    EXPECT_EQ(event["Severity"], Json::Value("Unknown"));
    EXPECT_FALSE(event.isMember("MessageSeverity"));
}

TEST_F(EventRecordTest, FqddWithoutUriLeavesOriginOut) {
    tk::AlertFields f;
    f.fqdd = "PCIe.Slot.3";
    tk::AlertRecord record(f);
    tk::LogCapture log;
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    EXPECT_FALSE(event.isMember("OriginOfCondition"));
    EXPECT_EQ(log.count(4, "]NO URI Found for the FQDD :PCIe.Slot.3"), 1);
}

TEST_F(EventRecordTest, OriginIsPercentEncoded) {
    tk::AlertFields f;
    f.fqdd = "System.Chassis.1 A|B";
    tk::AlertRecord record(f);
    Json::Value event = rfevent::composeAlertEvent(record.header(), "T", nullptr);
    EXPECT_EQ(event["OriginOfCondition"]["@odata.id"],
              Json::Value("/redfish/v1/Chassis/System.Chassis.1%20A%7CB"));
}

TEST_F(EventRecordTest, SpecialMessageIsRecognisedOverSevenCharacters) {
    for (const char* id : {"TVK0182", "TVK01820"}) {
        tk::AlertFields f;
        f.messageId = id;
        tk::AlertRecord record(f);
        EXPECT_TRUE(rfevent::isSpecialMessage(record.header())) << id;
    }
    for (const char* id : {"TVK018", "TVK0183", "tvk0182"}) {
        tk::AlertFields f;
        f.messageId = id;
        tk::AlertRecord record(f);
        EXPECT_FALSE(rfevent::isSpecialMessage(record.header())) << id;
    }
}

TEST_F(EventRecordTest, TimestampIsLocalTimeWithOffsetWithoutColon) {
    std::string stamp = rfevent::eventTimestamp();
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4})")))
        << stamp;
}

} // namespace
