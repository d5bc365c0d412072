#include "subscriptions/delivery_failure.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "subscriptions/invalid_dest_internal.h"
#include "subscriptions/queue_sandbox.h"

using namespace rfevent;

namespace rfevent::testkit {
namespace {

const char kBody[] = "{\"Id\":\"1\"}";

std::string closedUrl() {
    return "https://127.0.0.1:" + std::to_string(HttpsServer::closedLoopbackPort()) + "/gone";
}

// Where the first line containing text stands among the captured lines; -1 when none does.
int indexOf(const LogCapture& log, const std::string& text) {
    const std::vector<std::string> lines = log.lines();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(text) != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

Json::Value subscriptionWithPolicy(const std::string& policy) {
    Json::Value subscription(Json::objectValue);
    subscription["Destination"] = closedUrl();
    subscription["DeliveryRetryPolicy"] = policy;
    return subscription;
}

// Writes a store holding subscription under the id "1" and returns that store.
Json::Value storeOfOne(const Json::Value& subscription) {
    Json::Value store(Json::objectValue);
    store["1"] = subscription;
    writeSubscriptionStore(store);
    return store;
}

class DeliveryFailureTest : public ::testing::Test {
  protected:
    void SetUp() override { prepareQueueSandbox(2, 0); }
};

TEST_F(DeliveryFailureTest, ExhaustedRetriesFailWithTheReasonAndOneEntryUnderThePostLock) {
    LogCapture log;
    const DeliveryOutcome outcome =
        postToSubscriber(kBody, closedUrl().c_str(), Json::Value(Json::objectValue), "1");
    EXPECT_TRUE(outcome.failed());
    EXPECT_EQ(outcome.reason, CURLE_COULDNT_CONNECT);
    ASSERT_EQ(eventLogEntries().size(), 1u);
    EXPECT_EQ(eventLogEntries()[0]["MessageId"], Json::Value("JX083"));
    // The entry is written after the last attempt and before the transfer is released.
    const int lastAttempt = indexOf(log, "curl_easy_perform failed 2 time");
    const int entry = indexOf(log, "retried for 2 times so write JX Log");
    const int submitted = indexOf(log, "SubmitJXLog returned with status:0");
    const int cleanup = indexOf(log, "calling curl_easy_cleanup");
    ASSERT_GE(lastAttempt, 0) << log.dump();
    EXPECT_LT(lastAttempt, entry);
    EXPECT_LT(entry, submitted);
    EXPECT_LT(submitted, cleanup);
}

TEST_F(DeliveryFailureTest, AnsweredPostIsDeliveredWithoutEntry) {
    HttpsServer server(pki());
    const DeliveryOutcome outcome =
        postToSubscriber(kBody, server.url().c_str(), Json::Value(Json::objectValue), "1");
    EXPECT_EQ(outcome.result, DeliveryResult::Delivered);
    EXPECT_FALSE(outcome.failed());
    EXPECT_TRUE(eventLogEntries().empty());
}

TEST_F(DeliveryFailureTest, NoAttemptsMeansNotSentAndNoEntry) {
    writeDeliveryAttributes(0, 0, "No");
    const DeliveryOutcome outcome =
        postToSubscriber(kBody, closedUrl().c_str(), Json::Value(Json::objectValue), "1");
    EXPECT_EQ(outcome.result, DeliveryResult::NotSent);
    EXPECT_FALSE(outcome.failed());
    EXPECT_TRUE(eventLogEntries().empty());
}

TEST_F(DeliveryFailureTest, AlertFailureKeepsASubscriptionOfAnyOtherPolicy) {
    const Json::Value store = storeOfOne(subscriptionWithPolicy("RetryForever"));
    LogCapture log;
    applyPolicyOrKeep("1", store["1"]);
    EXPECT_EQ(readSubscriptionStore(), store);
    EXPECT_EQ(log.count(4, "No change to the subscription: 1"), 1);
}

TEST_F(DeliveryFailureTest, AlertFailureWithoutPolicyDoesNothing) {
    Json::Value withoutPolicy = subscriptionWithPolicy("SuspendRetries");
    withoutPolicy.removeMember("DeliveryRetryPolicy");
    const Json::Value store = storeOfOne(withoutPolicy);
    LogCapture log;
    applyPolicyOrKeep("1", store["1"]);
    EXPECT_EQ(readSubscriptionStore(), store);
    EXPECT_FALSE(log.containsAny("subscription: 1"));
}

TEST_F(DeliveryFailureTest, AlertFailureTerminatesAndSaysWhetherTheStoreChanged) {
    const Json::Value store = storeOfOne(subscriptionWithPolicy("TerminateAfterRetries"));
    LogCapture log;
    applyPolicyOrKeep("1", store["1"]);
    EXPECT_FALSE(readSubscriptionStore().isMember("1"));
    EXPECT_EQ(log.count(4, "Terminating subscription success"), 1);
    applyPolicyOrKeep("1", store["1"]); // already gone
    EXPECT_EQ(log.count(2, "Terminating subscription failed"), 1);
}

TEST_F(DeliveryFailureTest, ResendFailureTagsASubscriptionOfAnyOtherPolicy) {
    Json::Value store(Json::objectValue);
    store["1"] = subscriptionWithPolicy("");
    store["2"] = subscriptionWithPolicy("SuspendRetries");
    writeSubscriptionStore(store);
    const std::string destination = store["1"]["Destination"].asString();
    LogCapture log;
    applyPolicyOrTag(destination, "1", "");
    applyPolicyOrTag(destination, "2", "SuspendRetries");
    const Json::Value after = readSubscriptionStore();
    EXPECT_EQ(after["1"]["InvalidDestination"], Json::Value(true));
    EXPECT_FALSE(after["1"].isMember("SubscriptionStateAfterRetry"));
    EXPECT_EQ(after["2"]["SubscriptionStateAfterRetry"], Json::Value("Disabled"));
    EXPECT_FALSE(after["2"].isMember("InvalidDestination"));
    EXPECT_EQ(log.count(4, "Adding invalid field in subscription"), 1);
    EXPECT_EQ(log.count(5, "Retransmission uri = " + destination), 2);
}

TEST_F(DeliveryFailureTest, OnlyFailedTargetsAreQueuedWithTheirRecord) {
    DeliveryTarget reached;
    reached.destination = "https://reached/";
    reached.subscriptionId = "a";
    DeliveryTarget failed;
    failed.destination = "https://failed/";
    failed.subscriptionId = std::string("b\0c", 3);
    failed.retryPolicy = "TerminateAfterRetries";
    failed.subscription = subscriptionWithPolicy("TerminateAfterRetries");
    failed.failureCount = 1;
    failed.lastFailure = CURLE_OPERATION_TIMEDOUT;
    EXPECT_EQ(failed.outcome().reason, CURLE_OPERATION_TIMEDOUT);
    queueFailedTargets({reached, failed}, kBody);
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    ASSERT_EQ(queue.records.size(), 1u);
    const InvalidDestinationRecord& record = queue.records[0];
    EXPECT_EQ(record.destination, "https://failed/");
    EXPECT_EQ(record.subscriptionId, std::string("b\0c", 3)); // the whole id
    EXPECT_EQ(record.retryPolicy, "TerminateAfterRetries");
    EXPECT_EQ(record.subscription, failed.subscription);
    EXPECT_EQ(record.report, kBody);
    EXPECT_EQ(queue.names, std::vector<std::string>{"https://failed/"});
}

} // namespace
} // namespace rfevent::testkit
