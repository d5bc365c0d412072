#include "events/sse_path.h"
#include "events/sse_path_internal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "alert_record.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "harness/wait.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

const char kPrefix[] = "EventFormatType eq Event=";
const char kEnd[] = "<END>";

class SsePathTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        tk::writeDeliveryAttributes(1, 0, "Yes", "sse-host");
        tk::SseReceiverOptions options;
        options.fifoPath = tk::rooted("/var/run/lumenrest/SSE_FIFO");
        receiver_ = std::make_unique<tk::SseReceiver>(options);
    }

    void send(const tk::AlertFields& fields = tk::fullAlert()) {
        tk::AlertRecord record(fields);
        int context = 0;
        sendRedFishEvent_SSE(record.header(), &context);
    }

    // Every frame written so far (stops the receiver, which drains the FIFO).
    std::vector<std::string> frames() {
        receiver_->stop();
        return receiver_->fifoMessages();
    }

    static void subscriptions(const std::vector<std::vector<std::string>>& eventTypes) {
        Json::Value file(Json::objectValue);
        for (size_t i = 0; i < eventTypes.size(); ++i) {
            Json::Value& s = file["sse" + std::to_string(i)];
            s["EventTypes"] = Json::Value(Json::arrayValue);
            for (const std::string& type : eventTypes[i]) {
                s["EventTypes"].append(type);
            }
        }
        tk::writeSseSubscriptions(file);
    }

    std::unique_ptr<tk::SseReceiver> receiver_;
};

// Splits a frame into its id prefix and its document; fails the test when it is malformed.
Json::Value documentOf(const std::string& frame, std::string* idPiece = nullptr) {
    EXPECT_EQ(frame.rfind(kPrefix, 0), 0u) << frame;
    EXPECT_EQ(frame.substr(frame.size() - 5), kEnd) << frame;
    size_t json = frame.find(">:") + 2;
    if (idPiece != nullptr) {
        *idPiece = frame.substr(sizeof kPrefix - 1, json - (sizeof kPrefix - 1));
    }
    return tk::parseJson(frame.substr(json, frame.size() - 5 - json));
}

std::string expectedFrame(const tk::AlertFields& fields, const std::string& number,
                          const std::string& timestamp, const std::string& uri) {
    Json::Value d(Json::objectValue);
    d["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    d["@odata.type"] = "#Event.v1_5_0.Event";
    d["@odata.id"] = "/redfish/v1/EventService/Events/" + number;
    d["Id"] = number;
    d["Name"] = "Event Array";
    d["Events"].append(tk::expectedEvent(fields, timestamp, uri, nullptr));
    d["Oem"]["Orva"] = tk::expectedOrva("sse-host");
    return std::string(kPrefix) + "<id:" + number + ">:" + tk::compactJson(d) + kEnd;
}

TEST_F(SsePathTest, FrameCarriesTheNumberedDocumentByteForByte) {
    subscriptions({{"Alert"}});
    uint32_t base = rfevent::sseEventCount();
    send();
    auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
    std::string number = std::to_string(base + 1);
    std::string stamp = documentOf(sent[0])["Events"][0]["EventTimestamp"].asString();
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4})")));
    EXPECT_EQ(sent[0], expectedFrame(tk::fullAlert(), number, stamp,
                                     "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers/"
                                     "RAID.Integrated.1-1"));
}

TEST_F(SsePathTest, EmptyRecordFrame) {
    subscriptions({{"Alert"}});
    uint32_t base = rfevent::sseEventCount();
    tk::AlertFields empty;
    send(empty);
    auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
    std::string stamp = documentOf(sent[0])["Events"][0]["EventTimestamp"].asString();
    EXPECT_EQ(sent[0], expectedFrame(empty, std::to_string(base + 1), stamp, ""));
}

TEST_F(SsePathTest, AlertsAreNumberedFromOneWithOrWithoutSubscriptions) {
    uint32_t base = rfevent::sseEventCount();
    tk::LogCapture log;
    send(); // no SSE subscription file: the number is used up anyway
    EXPECT_EQ(log.count(2, "subscriptions file does not exist"), 1);
    EXPECT_EQ(rfevent::sseEventCount(), base + 1);
    if (base == 0) {
        EXPECT_EQ(rfevent::sseEventCount(), 1u); // a fresh process starts at 1
    }
    subscriptions({{"Alert"}});
    send();
    auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
    std::string id;
    Json::Value document = documentOf(sent[0], &id);
    EXPECT_EQ(id, "<id:" + std::to_string(base + 2) + ">:");
    EXPECT_EQ(document["Id"], Json::Value(std::to_string(base + 2)));
}

TEST_F(SsePathTest, BrokenFileSendsNothingButUsesTheNumber) {
    tk::writeFile(tk::rooted("/var/run/lumenrest/sse_subscriptions.json"), "[");
    uint32_t base = rfevent::sseEventCount();
    tk::LogCapture log;
    send();
    EXPECT_EQ(rfevent::sseEventCount(), base + 1);
    EXPECT_EQ(log.count(2, "subscriber File Data parsing failed"), 1);
    EXPECT_TRUE(frames().empty());
}

TEST_F(SsePathTest, SpecialMessageHasIntegerIdZero) {
    subscriptions({{"Alert"}});
    for (const char* messageId : {"TVK0182", "TVK01820"}) {
        uint32_t base = rfevent::sseEventCount();
        tk::AlertFields fields = tk::fullAlert();
        fields.messageId = messageId;
        send(fields);
        receiver_->waitForFifoMessages(1, tk::kEventDeadline);
        auto sent = receiver_->fifoMessages();
        receiver_->clear();
        ASSERT_EQ(sent.size(), 1u) << messageId;
        std::string id;
        Json::Value document = documentOf(sent[0], &id);
        EXPECT_EQ(id, "<id:0>:");
        EXPECT_TRUE(document["Id"].isInt());
        EXPECT_EQ(document["Id"], Json::Value(0));
        EXPECT_EQ(document["@odata.id"],
                  Json::Value("/redfish/v1/EventService/Events/" + std::to_string(base + 1)));
        EXPECT_NE(sent[0].find("\"Id\":0,"), std::string::npos);
    }
}

TEST_F(SsePathTest, RepeatedAlertElementGivesOneFrame) {
    subscriptions({{"Alert", "Alert"}});
    send();
    EXPECT_EQ(frames().size(), 1u);
}

TEST_F(SsePathTest, AfterTheFirstFrameOnlyALeadingAlertCounts) {
    subscriptions({{"Alert"}, {"StatusChange", "Alert"}, {"Alert"}});
    tk::LogCapture log;
    send();
    EXPECT_EQ(frames().size(), 2u);
    EXPECT_EQ(log.count(4, "Event Type is Alert"), 2);
    EXPECT_EQ(log.count(4, "Not an alert type"), 1);
}

TEST_F(SsePathTest, BeforeAnyFrameEveryElementIsSearched) {
    subscriptions({{"StatusChange"}, {"StatusChange", "Alert"}});
    send();
    auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
}

TEST_F(SsePathTest, EverySubscriptionAskingForAlertsGetsTheSameNumber) {
    subscriptions({{"Alert"}, {"Alert"}, {"Alert"}});
    send();
    auto sent = frames();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], sent[1]);
    EXPECT_EQ(sent[1], sent[2]);
}

TEST_F(SsePathTest, EmptyEventTypesStopsTheWalk) {
    subscriptions({{}, {"Alert"}});
    send();
    EXPECT_TRUE(frames().empty());
}

TEST_F(SsePathTest, NonArrayEventTypesIsSkipped) {
    Json::Value file(Json::objectValue);
    file["a"]["EventTypes"] = "Alert";
    file["b"]["EventTypes"][0] = "Alert";
    tk::writeSseSubscriptions(file);
    tk::LogCapture log;
    send();
    EXPECT_EQ(frames().size(), 1u);
    EXPECT_EQ(log.count(4, "EventType is not an array"), 1);
}

TEST_F(SsePathTest, DocumentCarriesNoContext) {
    subscriptions({{"Alert"}});
    send();
    auto sent = frames();
    ASSERT_EQ(sent.size(), 1u);
    Json::Value document = documentOf(sent[0]);
    EXPECT_FALSE(document.isMember("Context"));
    EXPECT_FALSE(document["Events"][0].isMember("Context"));
    EXPECT_EQ(sent[0].find("Context"), std::string::npos);
}

TEST_F(SsePathTest, AlertEntryFeedsBothPaths) {
    subscriptions({{"Alert"}});
    tk::AlertRecord record(tk::fullAlert());
    int context = 0;
    sendRedFishEventAlert(record.header(), &context);
    EXPECT_EQ(frames().size(), 1u);
}

} // namespace
