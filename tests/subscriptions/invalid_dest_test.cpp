// The invalid-destination queue and its two threads, driven one pass at a time against real
// HTTPS destinations with mutual TLS.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "subscriptions/invalid_dest_internal.h"
#include "subscriptions/queue_sandbox.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

using namespace rfevent;

namespace rfevent::testkit {
namespace {

const char kReport[] = "{\"Id\":\"CPUUsage\",\"MetricValues\":[]}";
const char kStorePath[] = "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json";

std::unique_ptr<HttpsServer> openServer(bool requireClientCert) {
    HttpsServerOptions options;
    options.requireClientCert = requireClientCert;
    return std::make_unique<HttpsServer>(pki(), options);
}

std::string closedUrl(const std::string& path) {
    return "https://127.0.0.1:" + std::to_string(HttpsServer::closedLoopbackPort()) + path;
}

Json::Value metricSubscription(const std::string& destination, const std::string& policy = "") {
    Json::Value subscription(Json::objectValue);
    subscription["EventFormatType"] = "MetricReport";
    subscription["Destination"] = destination;
    if (!policy.empty()) {
        subscription["DeliveryRetryPolicy"] = policy;
    }
    return subscription;
}

void queueRecord(const std::string& destination, const std::string& id, const std::string& policy,
                 const Json::Value& subscription, const std::string& report = kReport) {
    pushInvalidDestination(InvalidDestinationRecord{destination, id, policy, subscription, report});
}

std::vector<std::string> bodiesAt(const HttpsServer& server, const std::string& path) {
    std::vector<std::string> bodies;
    for (const RecordedRequest& request : server.requests()) {
        if (request.target == path) {
            bodies.push_back(request.body);
        }
    }
    return bodies;
}

class InvalidDestTest : public ::testing::Test {
  protected:
    void SetUp() override { prepareQueueSandbox(1, 0); }
};

TEST_F(InvalidDestTest, QueueStartsEmptyAndDrainingItDoesNothing) {
    EXPECT_EQ(queuedRecordCount(), 0u);
    LogCapture log;
    drainInvalidDestinationQueueOnce();
    EXPECT_FALSE(log.containsAny("Retry mechanism on dest"));
}

TEST_F(InvalidDestTest, ResendSucceedsAndLeavesTheStoreAlone) {
    auto server = openServer(true);
    Json::Value store(Json::objectValue);
    store["1"] = metricSubscription(server->url("/one"), "TerminateAfterRetries");
    store["1"]["InvalidDestination"] = true;
    store["1"]["HttpHeaders"][0]["X-Auth"] = "abc";
    store["2"] = metricSubscription(server->url("/two"));
    writeSubscriptionStore(store);
    queueRecord(server->url("/one"), "1", "TerminateAfterRetries", store["1"], "{\"n\":1}");
    queueRecord(server->url("/two"), "2", "", store["2"], "{\"n\":2}");
    LogCapture log;
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(queuedRecordCount(), 0u);
    EXPECT_TRUE(invalidDestinationQueue().names.empty());
    ASSERT_EQ(server->requestCount(), 2u);
    const RecordedRequest first = server->requests()[0];
    EXPECT_EQ(first.target, "/one");
    EXPECT_EQ(first.body, "{\"n\":1}");
    EXPECT_TRUE(first.hasHeaderLine("X-Auth:abc"));
    EXPECT_EQ(first.clientCn, kTestClientCn);
    EXPECT_EQ(server->requests()[1].body, "{\"n\":2}");
    EXPECT_EQ(readSubscriptionStore(), store);
    EXPECT_TRUE(log.contains(4, "Retry mechanism on dest :" + server->url("/one")));
    EXPECT_EQ(log.count(4, "Before Freeing the ptr["), 2);
    EXPECT_FALSE(log.containsAny("Retransmission uri"));
}

TEST_F(InvalidDestTest, FailedResendSuspendsTerminatesOrTags) {
    Json::Value store(Json::objectValue);
    store["s"] = metricSubscription(closedUrl("/s"), "SuspendRetries");
    store["t"] = metricSubscription(closedUrl("/t"), "TerminateAfterRetries");
    store["r"] = metricSubscription(closedUrl("/r"), "RetryForever");
    store["r"]["Unknown"] = "kept";
    writeSubscriptionStore(store);
    for (const char* id : {"s", "t", "r"}) {
        queueRecord(store[id]["Destination"].asString(), id,
                    store[id]["DeliveryRetryPolicy"].asString(), store[id]);
    }
    LogCapture log;
    drainInvalidDestinationQueueOnce();
    Json::Value after = readSubscriptionStore();
    EXPECT_EQ(after["s"]["SubscriptionStateAfterRetry"], "Disabled");
    EXPECT_FALSE(after.isMember("t"));
    EXPECT_EQ(after["r"]["InvalidDestination"], true);
    EXPECT_EQ(after["r"]["Unknown"], "kept");
    EXPECT_TRUE(log.contains(5, "Retransmission uri = " + store["s"]["Destination"].asString()));
    EXPECT_EQ(log.count(4, "Suspending/Terminating/Adding invalid field to the subscription"), 3);
    EXPECT_TRUE(log.contains(4, "Suspending subscription: s"));
    EXPECT_TRUE(log.contains(4, "Terminating subscription: t"));
    EXPECT_TRUE(log.contains(4, "Adding invalid field in subscription"));
    EXPECT_EQ(eventLogEntries().size(), 3u); // one "JX083" entry per exhausted re-send
}

TEST_F(InvalidDestTest, PolicyOnAMissingSubscriptionChangesNothing) {
    Json::Value store(Json::objectValue);
    store["other"] = metricSubscription(closedUrl("/o"));
    writeSubscriptionStore(store);
    queueRecord(closedUrl("/gone"), "gone", "", metricSubscription(closedUrl("/gone")));
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(readSubscriptionStore(), store);
    EXPECT_EQ(queuedRecordCount(), 0u);
}

TEST_F(InvalidDestTest, DuplicateBeyondFifteenIsResentOnce) {
    // The destination is absent: the parallel POST fails and queues it, and each re-send of it
    // is one "Retry mechanism" line and one exhausted schedule.
    auto server = openServer(true);
    for (int i = 0; i < 16; ++i) {
        queueRecord(server->url("/filler"), "filler", "", Json::Value(Json::objectValue));
    }
    const std::string destination = closedUrl("/s");
    Json::Value store(Json::objectValue);
    store["s"] = metricSubscription(destination);
    writeSubscriptionStore(store);
    LogCapture log;
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(log.count(4, destination + " already in Invalid Queue"), 1) << log.dump();
    EXPECT_EQ(queuedRecordCount(), 17u);
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(log.count(4, "Retry mechanism on dest :" + destination), 1) << log.dump();
    EXPECT_EQ(eventLogEntries().size(), 1u);
    EXPECT_EQ(bodiesAt(*server, "/filler").size(), 16u);
}

TEST_F(InvalidDestTest, DuplicateInAShortQueueIsResentPerRecord) {
    const std::string destination = closedUrl("/s");
    Json::Value store(Json::objectValue);
    store["s"] = metricSubscription(destination);
    writeSubscriptionStore(store);
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(queuedRecordCount(), 2u);
    LogCapture log;
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(log.count(4, "Retry mechanism on dest :" + destination), 2) << log.dump();
    EXPECT_EQ(eventLogEntries().size(), 2u);
}

TEST_F(InvalidDestTest, ZeroAttemptsChangeNothingInThreadOneAndUntagEverythingInThreadTwo) {
    writeDeliveryAttributes(0, 0, "No");
    Json::Value store(Json::objectValue);
    store["t"] = metricSubscription(closedUrl("/t"), "TerminateAfterRetries");
    store["a"] = metricSubscription(closedUrl("/a"));
    store["a"]["InvalidDestination"] = true;
    store["a"]["Unknown"] = 1;
    store["b"] = metricSubscription(closedUrl("/b"), "SuspendRetries");
    store["b"]["InvalidDestination"] = true;
    writeSubscriptionStore(store);
    queueRecord(closedUrl("/t"), "t", "TerminateAfterRetries", store["t"]);
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(readSubscriptionStore(), store);

    LogCapture log;
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    Json::Value expected = store;
    expected["a"].removeMember("InvalidDestination");
    expected["b"].removeMember("InvalidDestination");
    EXPECT_EQ(readSubscriptionStore(), expected);
    EXPECT_EQ(log.count(5, "is reachable now. Removing InvalidDestination tag"), 2);
    EXPECT_TRUE(eventLogEntries().empty());
}

TEST_F(InvalidDestTest, ProbeSendsTheTestReportAndClearsAFalseTagToo) {
    auto server = openServer(true);
    Json::Value store(Json::objectValue);
    store["f"] = metricSubscription(server->url("/f"));
    store["f"]["InvalidDestination"] = false;
    store["f"]["HttpHeaders"][0]["X-Auth"] = "abc";
    store["u"] = metricSubscription(server->url("/untagged"));
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    ASSERT_EQ(server->requestCount(), 1u);
    const RecordedRequest probe = server->requests()[0];
    EXPECT_EQ(probe.target, "/f");
    EXPECT_EQ(probe.body, g_invalidDestinationProbeReport);
    EXPECT_EQ(probe.body, "{\"MetricReportName\":\"TestReport\",\"GeneratedMetricReportValues\":"
                          "[{\"MetricId\":\"TestMetricId\",\"MetricValue\":\"0\",\"Timestamp\":"
                          "\"0000-00-00T00:00:00\"}]}");
    EXPECT_TRUE(probe.hasHeaderLine("X-Auth:abc"));
    EXPECT_FALSE(readSubscriptionStore()["f"].isMember("InvalidDestination"));
    EXPECT_TRUE(log.contains(4, "Subscription file exists"));
    EXPECT_TRUE(
        log.contains(4, "Subscription with invalid destination found : " + server->url("/f")));
    EXPECT_TRUE(log.contains(4, "bSuspendSubscription : 0"));
}

TEST_F(InvalidDestTest, FailedProbeKeepsTheTagAndAppliesNoPolicy) {
    Json::Value store(Json::objectValue);
    store["t"] = metricSubscription(closedUrl("/t"), "TerminateAfterRetries");
    store["t"]["InvalidDestination"] = true;
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    EXPECT_EQ(readSubscriptionStore(), store);
    EXPECT_TRUE(log.contains(4, "bSuspendSubscription : 1"));
    ASSERT_EQ(eventLogEntries().size(), 1u); // the single POST's "JX083" entry
}

TEST_F(InvalidDestTest, MissingOrBrokenStoreEndsThreadTwo) {
    LogCapture log;
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::End);
    EXPECT_TRUE(log.contains(4, "Subscription file does not exist"));
    writeFile(rooted(kStorePath), "{");
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::End);
    EXPECT_TRUE(log.contains(2, "Fail to parse event subscription file"));
    writeSubscriptionStore(Json::Value(Json::objectValue));
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
}

TEST_F(InvalidDestTest, DeletingTheStoreEndsTheRunningThread) {
    writeSubscriptionStore(Json::Value(Json::objectValue));
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    removeFile(rooted(kStorePath));
    // The thread's first cycle finds no store and returns instead of sleeping.
    std::thread worker([] { InvalidDestHandlingThread2(nullptr); });
    worker.join();
}

TEST_F(InvalidDestTest, AnErrorDropsOnlyItsOwnRecord) {
    auto server = openServer(true);
    Json::Value broken(Json::objectValue);
    broken["HttpHeaders"].append("not an object");
    queueRecord(server->url("/broken"), "b", "", broken);
    queueRecord(server->url("/fine"), "f", "", Json::Value(Json::objectValue));
    LogCapture log;
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(queuedRecordCount(), 0u);
    EXPECT_EQ(bodiesAt(*server, "/fine").size(), 1u);
    EXPECT_TRUE(bodiesAt(*server, "/broken").empty());
    EXPECT_TRUE(log.contains(2, "Re-send dropped")) << log.dump();
}

TEST_F(InvalidDestTest, AnErrorDropsOnlyItsOwnProbe) {
    auto server = openServer(true);
    Json::Value store(Json::objectValue);
    store["a"] = metricSubscription(server->url("/a"));
    store["a"]["InvalidDestination"] = true;
    store["a"]["HttpHeaders"].append("not an object");
    store["b"] = metricSubscription(server->url("/b"));
    store["b"]["InvalidDestination"] = true;
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    EXPECT_TRUE(log.contains(2, "Probe dropped"));
    Json::Value after = readSubscriptionStore();
    EXPECT_TRUE(after["a"].isMember("InvalidDestination"));
    EXPECT_FALSE(after["b"].isMember("InvalidDestination"));
}

// A subscription whose destination stops answering: the report fails, is queued, the re-send
// fails, the policy applies; a tagged destination is probed back to normal delivery.
TEST_F(InvalidDestTest, SuspendedAfterFailedResend) {
    Json::Value store(Json::objectValue);
    store["s"] = metricSubscription(closedUrl("/s"), "SuspendRetries");
    writeSubscriptionStore(store);
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(queuedRecordCount(), 1u);
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(readSubscriptionStore()["s"]["SubscriptionStateAfterRetry"], "Disabled");
    LogCapture log;
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_TRUE(log.contains(4, "Disabled subscription found, skipping..."));
    EXPECT_EQ(queuedRecordCount(), 0u);
}

TEST_F(InvalidDestTest, TerminatedAfterFailedResend) {
    Json::Value store(Json::objectValue);
    store["t"] = metricSubscription(closedUrl("/t"), "TerminateAfterRetries");
    store["keep"] = metricSubscription(closedUrl("/k"), "SuspendRetries");
    store["keep"]["EventFormatType"] = "Event";
    writeSubscriptionStore(store);
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    drainInvalidDestinationQueueOnce();
    Json::Value after = readSubscriptionStore();
    EXPECT_FALSE(after.isMember("t"));
    EXPECT_EQ(after["keep"], store["keep"]);
}

TEST_F(InvalidDestTest, TaggedThenRecoveredByProbe) {
    // Accepts any client, but at first closes every connection at once: deliveries fail
    // straight away (no time-out involved), until the destination comes back.
    auto server = openServer(false);
    server->setDropConnections(true);
    Json::Value store(Json::objectValue);
    store["r"] = metricSubscription(server->url("/r"), "RetryForever");
    writeSubscriptionStore(store);

    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(queuedRecordCount(), 1u);
    drainInvalidDestinationQueueOnce();
    EXPECT_EQ(readSubscriptionStore()["r"]["InvalidDestination"], true);

    // Tagged: the report path leaves it out, and a failing probe keeps the tag.
    server->clear();
    LogCapture log;
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_TRUE(log.contains(4, "Could not find valid [Destination] in [r] subscription."));
    EXPECT_EQ(queuedRecordCount(), 0u);
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    EXPECT_EQ(readSubscriptionStore()["r"]["InvalidDestination"], true);

    server->setDropConnections(false);
    server->clear();
    EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue);
    EXPECT_FALSE(readSubscriptionStore()["r"].isMember("InvalidDestination"));
    EXPECT_EQ(bodiesAt(*server, "/r"), std::vector<std::string>{g_invalidDestinationProbeReport});

    server->clear();
    ASSERT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(bodiesAt(*server, "/r"), std::vector<std::string>{kReport});
    EXPECT_EQ(queuedRecordCount(), 0u);
}

} // namespace
} // namespace rfevent::testkit
