#include "events/subscriber_path.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "alert_record.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

const char kRaidUri[] =
    "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers/RAID.Integrated.1-1";
const std::regex kTimestamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4})");

class SubscriberPathTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        pki_ = tk::generateTestPki(tk::rooted("/pki"));
        tk::installClientCredentials(pki_, tk::sandboxRoot(), true);
        tk::writeDeliveryAttributes(1, 0, "No", "bmc-host");
        server_ = std::make_unique<tk::HttpsServer>(pki_);
    }

    Json::Value subscription(const std::string& path, std::vector<std::string> types = {"Alert"}) {
        Json::Value s(Json::objectValue);
        s["Destination"] = server_->url(path);
        s["EventTypes"] = Json::Value(Json::arrayValue);
        for (const std::string& type : types) {
            s["EventTypes"].append(type);
        }
        return s;
    }

    static Json::Value unreachable(const std::string& policy) {
        Json::Value s(Json::objectValue);
        s["Destination"] =
            "https://127.0.0.1:" + std::to_string(tk::HttpsServer::closedLoopbackPort()) + "/";
        s["EventTypes"].append("Alert");
        if (!policy.empty()) {
            s["DeliveryRetryPolicy"] = policy;
        }
        return s;
    }

    void send(const tk::AlertFields& fields = tk::fullAlert()) {
        tk::AlertRecord record(fields);
        int context = 0;
        sendRedFishEvent(record.header(), &context);
    }

    std::vector<std::string> targets() const {
        std::vector<std::string> out;
        for (const auto& request : server_->requests()) {
            out.push_back(request.target);
        }
        return out;
    }

    tk::TestPki pki_;
    std::unique_ptr<tk::HttpsServer> server_;
};

// The document expected for subscription id; the timestamp is taken from what was received.
std::string expectedDocument(const tk::AlertFields& fields, const std::string& id,
                             const Json::Value& context, const std::string& timestamp,
                             const std::string& uri) {
    Json::Value d(Json::objectValue);
    d["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    d["@odata.type"] = "#Event.v1_5_0.Event";
    d["@odata.id"] = "/redfish/v1/EventService/Events/" + id;
    d["Id"] = id;
    d["Name"] = "Event Array";
    d["Context"] = context;
    d["Events"].append(tk::expectedEvent(fields, timestamp, uri, &context));
    d["Oem"]["Orva"] = tk::expectedOrva("bmc-host");
    return tk::compactJson(d);
}

std::string timestampOf(const std::string& body) {
    return tk::parseJson(body)["Events"][0]["EventTimestamp"].asString();
}

TEST_F(SubscriberPathTest, FullRecordIsReceivedByteForByte) {
    Json::Value store(Json::objectValue);
    store["5"] = subscription("/five");
    store["5"]["Context"] = "ctx-5";
    store["5"]["HttpHeaders"][0]["X-Token"] = "t0k";
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    ASSERT_EQ(server_->requestCount(), 1u);
    tk::RecordedRequest request = server_->requests()[0];
    std::string stamp = timestampOf(request.body);
    EXPECT_TRUE(std::regex_match(stamp, kTimestamp)) << stamp;
    EXPECT_EQ(request.body,
              expectedDocument(tk::fullAlert(), "5", Json::Value("ctx-5"), stamp, kRaidUri));
    EXPECT_TRUE(request.hasHeaderLine("X-Token:t0k"));
    EXPECT_EQ(request.clientCn, tk::kTestClientCn);
    EXPECT_EQ(log.count(4, "subscriber File Data Parsed Successfully"), 1);
    EXPECT_EQ(log.count(4, "sendHTTPPacketByCURL success"), 1);
}

TEST_F(SubscriberPathTest, EmptyRecordIsReceivedByteForByte) {
    Json::Value store(Json::objectValue);
    store["7"] = subscription("/seven");
    tk::writeSubscriptionStore(store);
    tk::AlertFields empty;
    tk::LogCapture log;
    send(empty);
    ASSERT_EQ(server_->requestCount(), 1u);
    std::string body = server_->requests()[0].body;
    std::string stamp = timestampOf(body);
    EXPECT_TRUE(std::regex_match(stamp, kTimestamp)) << stamp;
    EXPECT_EQ(body, expectedDocument(empty, "7", Json::Value(), stamp, ""));
    EXPECT_NE(body.find("\"Context\":null"), std::string::npos);
    EXPECT_FALSE(tk::parseJson(body)["Events"][0].isMember("OriginOfCondition"));
    EXPECT_EQ(log.count(4, "No offsetFQDD"), 1);
}

TEST_F(SubscriberPathTest, SubscriptionsAreServedInByteOrderOfTheirIds) {
    Json::Value store(Json::objectValue);
    store["2"] = subscription("/2");
    store["10"] = subscription("/10");
    store["1"] = subscription("/1");
    tk::writeSubscriptionStore(store);
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/1", "/10", "/2"}));
    // One timestamp for the whole call.
    auto requests = server_->requests();
    EXPECT_EQ(timestampOf(requests[0].body), timestampOf(requests[2].body));
}

TEST_F(SubscriberPathTest, EmptyEventTypesStopsTheWholeWalk) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/1", {});
    store["2"] = subscription("/2");
    tk::writeSubscriptionStore(store);
    send();
    EXPECT_EQ(server_->requestCount(), 0u);

    store["0"] = subscription("/0");
    tk::writeSubscriptionStore(store);
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/0"}));
}

TEST_F(SubscriberPathTest, MetricReportSubscriptionsAreSkipped) {
    Json::Value store(Json::objectValue);
    store["a"] = subscription("/metric");
    store["a"]["EventFormatType"] = "MetricReport";
    store["b"] = subscription("/event");
    store["b"]["EventFormatType"] = "Event";
    store["c"] = subscription("/empty");
    store["c"]["EventFormatType"] = "";
    store["d"] = subscription("/absent");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/event", "/empty", "/absent"}));
    EXPECT_EQ(log.count(4, "SubscriptionId:a is not Event as EventFormatType"), 1);
}

TEST_F(SubscriberPathTest, EveryAlertElementIsOneDelivery) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/twice", {"Alert", "Alert"});
    store["2"] = subscription("/lower", {"alert"});
    store["3"] = subscription("/second", {"StatusChange", "Alert"});
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/twice", "/twice", "/second"}));
    EXPECT_EQ(log.count(4, "Not an alert type"), 2);
}

TEST_F(SubscriberPathTest, NonArrayEventTypesIsSkippedAndTheWalkGoesOn) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/text");
    store["1"]["EventTypes"] = "Alert";
    store["2"] = subscription("/none");
    store["2"].removeMember("EventTypes");
    store["3"] = subscription("/ok");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/ok"}));
    EXPECT_EQ(log.count(4, "EventType is not an array"), 2);
}

TEST_F(SubscriberPathTest, DisabledSubscriptionIsSkipped) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/off");
    store["1"]["SubscriptionStateAfterRetry"] = "Disabled";
    store["2"] = subscription("/on");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/on"}));
    EXPECT_EQ(log.count(4, "Disabled subscription found, skipping..."), 1);
}

TEST_F(SubscriberPathTest, TerminateAfterRetriesRemovesTheSubscription) {
    Json::Value store(Json::objectValue);
    store["1"] = unreachable("TerminateAfterRetries");
    store["2"] = subscription("/kept");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    Json::Value stored = tk::readSubscriptionStore();
    EXPECT_FALSE(stored.isMember("1"));
    EXPECT_EQ(stored["2"], store["2"]);
    EXPECT_EQ(targets(), (std::vector<std::string>{"/kept"}));
    EXPECT_EQ(tk::eventLogEntries().size(), 1u);
    EXPECT_EQ(log.count(4, "Terminating subscription: 1"), 1);
    EXPECT_EQ(log.count(4, "Terminating subscription success"), 1);
}

TEST_F(SubscriberPathTest, RemovedSubscriptionStillGetsItsRemainingElements) {
    Json::Value store(Json::objectValue);
    store["1"] = unreachable("TerminateAfterRetries");
    store["1"]["EventTypes"].append("Alert");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(tk::eventLogEntries().size(), 2u);
    EXPECT_EQ(log.count(4, "Terminating subscription success"), 1);
    EXPECT_EQ(log.count(2, "Terminating subscription failed"), 1);
}

TEST_F(SubscriberPathTest, SuspendRetriesDisablesTheSubscription) {
    Json::Value store(Json::objectValue);
    store["1"] = unreachable("SuspendRetries");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    Json::Value expected = store;
    expected["1"]["SubscriptionStateAfterRetry"] = "Disabled";
    EXPECT_EQ(tk::readSubscriptionStore(), expected);
    EXPECT_EQ(log.count(4, "Suspending subscription: 1"), 1);
    // The next alert skips it.
    send();
    EXPECT_EQ(tk::eventLogEntries().size(), 1u);
}

TEST_F(SubscriberPathTest, UnverifiableDestinationIsLoggedAndItsPolicyApplied) {
    tk::installClientCredentials(pki_, tk::sandboxRoot(), false);
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/strict");
    store["1"]["DeliveryRetryPolicy"] = "SuspendRetries";
    tk::writeSubscriptionStore(store);
    send();
    EXPECT_EQ(server_->requestCount(), 0u);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageId"], Json::Value("JX083"));
    EXPECT_EQ(entries[0]["MessageArgs"][0], Json::Value(server_->url("/strict")));
    EXPECT_EQ(tk::readSubscriptionStore()["1"]["SubscriptionStateAfterRetry"],
              Json::Value("Disabled"));
}

TEST_F(SubscriberPathTest, OtherOrNoPolicyLeavesTheStoreAlone) {
    Json::Value store(Json::objectValue);
    store["1"] = unreachable("RetryForever");
    store["2"] = unreachable("");
    tk::writeSubscriptionStore(store);
    std::string before =
        tk::readFile(tk::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"));
    tk::LogCapture log;
    send();
    EXPECT_EQ(
        tk::readFile(tk::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json")),
        before);
    EXPECT_EQ(log.count(4, "No change to the subscription: 1"), 1);
    EXPECT_EQ(tk::eventLogEntries().size(), 2u);
}

TEST_F(SubscriberPathTest, ContextOfAnyTypeIsCopiedUnchanged) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/ctx");
    store["1"]["Context"]["Nested"][0] = 3;
    tk::writeSubscriptionStore(store);
    send();
    ASSERT_EQ(server_->requestCount(), 1u);
    Json::Value body = tk::parseJson(server_->requests()[0].body);
    EXPECT_EQ(body["Context"], store["1"]["Context"]);
    EXPECT_EQ(body["Events"][0]["Context"], store["1"]["Context"]);
}

TEST_F(SubscriberPathTest, DestinationIsCutTo2047Characters) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/" + std::string(3000, 'p'));
    tk::writeSubscriptionStore(store);
    send();
    ASSERT_EQ(server_->requestCount(), 1u);
    EXPECT_EQ(server_->url("").size() + server_->requests()[0].target.size(), 2047u);
}

TEST_F(SubscriberPathTest, SubscriptionWithoutDestinationIsNotSent) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/x");
    store["1"].removeMember("Destination");
    store["2"] = subscription("/y");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    send();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/y"}));
    EXPECT_EQ(log.count(2, "No Destination for subscription: 1"), 1);
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SubscriberPathTest, MissingOrBrokenStoreSendsNothing) {
    tk::LogCapture log;
    send();
    EXPECT_EQ(log.count(2, "subscriptions file does not exist"), 1);
    tk::writeFile(tk::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"), "{");
    send();
    EXPECT_EQ(log.count(2, "subscriber File Data parsing failed"), 1);
    EXPECT_EQ(server_->requestCount(), 0u);
}

TEST_F(SubscriberPathTest, AlertEntryDeliversWhenEventingIsEnabled) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription("/entry");
    tk::writeSubscriptionStore(store);
    tk::AlertRecord record(tk::fullAlert());
    int context = 0;
    sendRedFishEventAlert(record.header(), &context);
    EXPECT_EQ(server_->requestCount(), 1u);
    tk::setAttribute("Tavik.Embedded.1#RedfishEventing.1#EventEnable", "0");
    sendRedFishEventAlert(record.header(), &context);
    EXPECT_EQ(server_->requestCount(), 1u);
}

} // namespace
