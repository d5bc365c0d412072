// Alerts with stores written by someone else: a subscription with unusable keys costs no other
// subscription its event, and the SSE fan-out still runs after it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "alert_record.h"
#include "base/paths.h"
#include "events/sse_path.h"
#include "events/subscriber_path.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "rfevent/redfish_event.h"

using namespace rfevent;
namespace tk = rfevent::testkit;

namespace {

class HostileAlertStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        pki_ = tk::generateTestPki(tk::rooted("/pki"));
        tk::installClientCredentials(pki_, tk::sandboxRoot(), true);
        tk::writeDeliveryAttributes(1, 0, "No", "bmc-host");
        server_ = std::make_unique<tk::HttpsServer>(pki_);
        tk::SseReceiverOptions options;
        options.fifoPath = fixedPath(FixedPath::SseFifo);
        sse_ = std::make_unique<tk::SseReceiver>(options);
    }

    Json::Value alerts(const std::string& path) const {
        Json::Value subscription(Json::objectValue);
        subscription["Destination"] = server_->url(path);
        subscription["EventTypes"].append("Alert");
        return subscription;
    }

    void alert() {
        tk::AlertRecord record(tk::fullAlert());
        int context = 0;
        sendRedFishEventAlert(record.header(), &context);
    }

    std::vector<std::string> targets() const {
        std::vector<std::string> out;
        for (const tk::RecordedRequest& request : server_->requests()) {
            out.push_back(request.target);
        }
        return out;
    }

    std::vector<std::string> sseFrames() {
        sse_->stop();
        return sse_->fifoMessages();
    }

    tk::TestPki pki_;
    std::unique_ptr<tk::HttpsServer> server_;
    std::unique_ptr<tk::SseReceiver> sse_;
};

TEST_F(HostileAlertStoreTest, WronglyTypedKeysSkipOnlyTheirSubscriptionAndSseStillRuns) {
    Json::Value store(Json::objectValue);
    store["a"] = alerts("/a");
    store["b"] = alerts("/b");
    store["b"]["Destination"] = Json::Value(Json::objectValue);
    store["c"] = alerts("/c");
    store["c"]["DeliveryRetryPolicy"].append("TerminateAfterRetries");
    store["d"] = alerts("/d");
    store["d"]["EventFormatType"] = 3;
    store["e"] = alerts("/e");
    store["e"]["HttpHeaders"] = Json::Value(Json::objectValue);
    store["f"] = alerts("/f");
    store["f"]["EventTypes"].append(Json::Value(Json::objectValue));
    store["g"] = 1;
    store["z"] = alerts("/z");
    tk::writeSubscriptionStore(store);
    Json::Value sse(Json::objectValue);
    sse["bad"] = "not an object";
    sse["odd"]["EventTypes"].append(7);
    sse["ok"]["EventTypes"].append("Alert");
    tk::writeSseSubscriptions(sse);

    tk::LogCapture log;
    alert();
    EXPECT_EQ(targets(), (std::vector<std::string>{"/a", "/z"}));
    for (const char* line : {"Subscription b skipped: Destination has the wrong JSON type",
                             "Subscription c skipped: DeliveryRetryPolicy has the wrong JSON type",
                             "Subscription d skipped: EventFormatType has the wrong JSON type",
                             "Subscription e skipped: HttpHeaders has the wrong JSON type",
                             "Subscription f skipped: EventTypes has the wrong JSON type",
                             "Subscription g skipped: the subscription has the wrong JSON type",
                             "SSE subscription bad skipped: not an object",
                             "Subscription odd skipped: EventTypes has the wrong JSON type"}) {
        EXPECT_EQ(log.count(2, line), 1) << line << "\n" << log.dump();
    }
    EXPECT_EQ(sseFrames().size(), 1u);             // the SSE path ran after the subscriber path
    EXPECT_EQ(tk::readSubscriptionStore(), store); // nothing was changed by a policy
}

// The alert paths hold these texts in a 20-byte buffer, which ends at the first NUL byte.
TEST_F(HostileAlertStoreTest, TextsAreComparedUpToTheirFirstNulByte) {
    Json::Value store(Json::objectValue);
    store["a"] = alerts("/a");
    store["a"]["EventTypes"][0] = std::string("Alert\0x", 7);
    store["b"] = alerts("/b");
    store["b"]["EventFormatType"] = std::string("MetricReport\0x", 14);
    store["c"] = alerts("/c");
    store["c"]["EventTypes"][0] = std::string("Alerts", 6);
    tk::writeSubscriptionStore(store);
    Json::Value sse(Json::objectValue);
    sse["s"]["EventTypes"].append(std::string("Alert\0y", 7));
    tk::writeSseSubscriptions(sse);
    alert();
    EXPECT_EQ(targets(), std::vector<std::string>{"/a"}); // b is a metric report subscription
    EXPECT_EQ(sseFrames().size(), 1u);
}

TEST_F(HostileAlertStoreTest, AFailingIdWithANulByteChangesOnlyItself) {
    Json::Value store(Json::objectValue);
    const std::string nulId("s\0t", 3);
    store[nulId] = alerts("/unused");
    store[nulId]["Destination"] =
        "https://127.0.0.1:" + std::to_string(tk::HttpsServer::closedLoopbackPort()) + "/";
    store[nulId]["DeliveryRetryPolicy"] = "SuspendRetries";
    store["s"] = alerts("/s");
    tk::writeSubscriptionStore(store);
    alert();
    Json::Value after = tk::readSubscriptionStore();
    EXPECT_EQ(after[nulId]["SubscriptionStateAfterRetry"], "Disabled");
    EXPECT_FALSE(after["s"].isMember("SubscriptionStateAfterRetry"));
    EXPECT_EQ(targets(), std::vector<std::string>{"/s"});
}

} // namespace
