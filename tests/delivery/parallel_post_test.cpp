// One POST of a metric report to many destinations at once, against real HTTPS servers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "delivery/parallel_post.h"
#include "delivery/parallel_post_internal.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "subscriptions/store.h"

using namespace rfevent;

namespace rfevent::testkit {
namespace {

using namespace std::chrono_literals;

const char kReport[] = "{\"Id\":\"CPUUsage\",\"MetricValues\":[]}";

TestPki pki() {
    return generateTestPki(rooted("/pki"));
}

// Destinations that ask for the client certificate without insisting on it, so a test sees
// whether the parallel POST presented it.
std::unique_ptr<HttpsServer> openServer(int status = 200, int delayMs = 0) {
    HttpsServerOptions options;
    options.requireClientCert = false;
    options.status = status;
    options.delayMs = delayMs;
    return std::make_unique<HttpsServer>(pki(), options);
}

std::string closedUrl(const std::string& path = "/gone") {
    return "https://127.0.0.1:" + std::to_string(HttpsServer::closedLoopbackPort()) + path;
}

DeliveryTarget makeTarget(const std::string& destination,
                          const Json::Value& subscription = Json::Value(Json::objectValue)) {
    DeliveryTarget target;
    target.destination = destination;
    target.subscriptionId = "1";
    target.subscription = subscription;
    return target;
}

// The targets of one test.
struct Targets {
    std::vector<DeliveryTarget> list;
    void add(const std::string& destination,
             const Json::Value& subscription = Json::Value(Json::objectValue)) {
        list.push_back(makeTarget(destination, subscription));
    }
    int failures(std::size_t i) const { return list[i].failureCount; }
};

class ParallelPostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        installClientCredentials(pki(), sandboxRoot());
        writeDeliveryAttributes(3, kRoomyIntervalSeconds, "No");
    }
};

TEST_F(ParallelPostTest, EmptyVectorSendsNothing) {
    LogCapture log;
    std::vector<DeliveryTarget> none;
    sendMultiperform(kReport, none);
    EXPECT_TRUE(log.contains(5, "Event Destination count = 0")) << log.dump();
    EXPECT_FALSE(log.containsAny("uri = "));
    EXPECT_FALSE(log.containsAny("sent message"));
    EXPECT_TRUE(log.contains(4, "Exiting sendMultiperform Function"));
}

TEST_F(ParallelPostTest, PostsToEveryDestinationWithItsHeaders) {
    auto first = openServer();
    auto second = openServer();
    Json::Value subscription(Json::objectValue);
    Json::Value element(Json::objectValue);
    element["X-Auth"] = "abc";
    element["X-Tenant"] = "blue";
    subscription["HttpHeaders"].append(element);
    // Large enough for libcurl to ask for 100-continue unless "Expect:" suppresses it.
    const std::string body = "{\"Pad\":\"" + std::string(4000, 'x') + "\"}";
    Targets targets;
    targets.add(first->url("/reports"), subscription);
    targets.add(second->url("/other?x=1"));

    LogCapture log;
    sendMultiperform(body.c_str(), targets.list);

    ASSERT_EQ(first->requestCount(), 1u);
    ASSERT_EQ(second->requestCount(), 1u);
    const RecordedRequest a = first->requests()[0];
    EXPECT_EQ(a.method, "POST");
    EXPECT_EQ(a.target, "/reports");
    EXPECT_EQ(a.body, body);
    EXPECT_FALSE(a.hasHeader("Expect"));
    EXPECT_TRUE(a.clientCertVerified); // the controller's certificate, as on every POST
    const auto& lines = a.headerLines;
    auto at = [&](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    ASSERT_TRUE(a.hasHeaderLine("X-Auth:abc"));
    ASSERT_TRUE(a.hasHeaderLine("X-Tenant:blue"));
    ASSERT_TRUE(a.hasHeaderLine("Content-Type: application/json"));
    EXPECT_LT(at("X-Auth:abc"), at("X-Tenant:blue"));
    EXPECT_LT(at("X-Tenant:blue"), at("Content-Type: application/json"));
    EXPECT_EQ(second->requests()[0].target, "/other?x=1");
    EXPECT_EQ(targets.failures(0), 0);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_TRUE(log.contains(4, "Headervalue:X-Auth:abc"));
    EXPECT_TRUE(log.contains(4, "HttpHeader size is Zero"));
    EXPECT_TRUE(
        log.contains(2, "CURLOPT_CAINFO:" + rooted("/etc/certs/pubkey/https_server_ca.crt")));
    EXPECT_TRUE(log.contains(5, "Event Destination count = 2"));
    EXPECT_TRUE(log.contains(5, "uri = " + first->url("/reports")));
    EXPECT_TRUE(log.contains(2, " sent message status: 0"));
    EXPECT_TRUE(log.contains(2, " sent message url: " + second->url("/other?x=1")));
    EXPECT_FALSE(log.containsAny("update retry count"));
    EXPECT_TRUE(log.contains(5, "retryAttempts:3, retryIntervalSec:" +
                                    std::to_string(kRoomyIntervalSeconds)));
    EXPECT_TRUE(log.contains(5, "isIgnoreCertificateErrors:0"));
    EXPECT_TRUE(log.contains(2, "curl_multi_perform success still_running :"));
}

TEST_F(ParallelPostTest, HeaderWithLineBreakIsDropped) {
    auto server = openServer();
    Json::Value subscription(Json::objectValue);
    Json::Value element(Json::objectValue);
    element["X-Good"] = "1";
    element["X-Bad"] = "a\r\nX-Injected: yes";
    element["X-Bad\n2"] = "b";
    subscription["HttpHeaders"].append(element);
    Targets targets;
    targets.add(server->url("/h"), subscription);
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    ASSERT_EQ(server->requestCount(), 1u);
    const RecordedRequest request = server->requests()[0];
    EXPECT_TRUE(request.hasHeaderLine("X-Good:1"));
    EXPECT_FALSE(request.hasHeader("X-Injected"));
    EXPECT_FALSE(request.hasHeader("X-Bad"));
    EXPECT_EQ(log.count(2, "CR or LF in name or value"), 2) << log.dump();
}

TEST_F(ParallelPostTest, IgnoringCertificatesNeedsNoCaBundle) {
    removeFile(rooted("/etc/certs/pubkey/https_server_ca.crt"));
    writeDeliveryAttributes(3, kRoomyIntervalSeconds, "Yes");
    auto server = openServer();
    Targets targets;
    targets.add(server->url("/a"));
    targets.add(server->url("/b"));
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 2u);
    EXPECT_EQ(targets.failures(0), 0);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_FALSE(log.containsAny("CURLOPT_CAINFO"));
}

TEST_F(ParallelPostTest, MissingSwitchBehavesAsIgnore) {
    removeFile(rooted("/etc/certs/pubkey/https_server_ca.crt"));
    removeAttribute("Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors");
    auto server = openServer();
    Targets targets;
    targets.add(server->url("/a"));
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 1u);
    EXPECT_EQ(targets.failures(0), 0);
}

TEST_F(ParallelPostTest, VerifyingWithMissingCaBundleFailsPerDestination) {
    removeFile(rooted("/etc/certs/pubkey/https_server_ca.crt"));
    auto first = openServer();
    auto second = openServer();
    Targets targets;
    targets.add(first->url("/a"));
    targets.add(second->url("/b"));
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(first->requestCount(), 0u);
    EXPECT_EQ(second->requestCount(), 0u);
    EXPECT_EQ(targets.failures(0), 1);
    EXPECT_EQ(targets.failures(1), 1);
    EXPECT_EQ(log.count(2, "update retry count"), 2) << log.dump();
}

TEST_F(ParallelPostTest, VerifyingAgainstAnotherCaFails) {
    installClientCredentials(pki(), sandboxRoot(), false);
    auto server = openServer();
    Targets targets;
    targets.add(server->url("/a"));
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 0u);
    EXPECT_EQ(targets.failures(0), 1);
}

TEST_F(ParallelPostTest, FailingDestinationCountsOncePerCall) {
    auto server = openServer();
    Targets targets;
    targets.add(closedUrl());
    targets.add(server->url("/ok"));
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(targets.failures(0), 1);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_EQ(server->requestCount(), 1u);
    EXPECT_TRUE(log.contains(2, " sent message url: " + targets.list[0].destination));
    EXPECT_EQ(log.count(2, "update retry count"), 1);
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(targets.failures(0), 2);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_EQ(server->requestCount(), 2u);
}

TEST_F(ParallelPostTest, SharedDestinationCountsOnTheFirstTarget) {
    const std::string gone = closedUrl();
    Targets targets;
    targets.add(gone);
    targets.add(gone);
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(targets.failures(0), 2);
    EXPECT_EQ(targets.failures(1), 0);
}

TEST_F(ParallelPostTest, SharedReachableDestinationGetsOnePostPerTarget) {
    auto server = openServer();
    Targets targets;
    targets.add(server->url("/same"));
    targets.add(server->url("/same"));
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 2u);
    EXPECT_EQ(targets.failures(0), 0);
}

TEST_F(ParallelPostTest, ErrorStatusCountsAsDelivered) {
    auto notFound = openServer(404);
    auto broken = openServer(500);
    Targets targets;
    targets.add(notFound->url("/x"));
    targets.add(broken->url("/y"));
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(notFound->requestCount(), 1u);
    EXPECT_EQ(broken->requestCount(), 1u);
    EXPECT_EQ(targets.failures(0), 0);
    EXPECT_EQ(targets.failures(1), 0);
}

TEST_F(ParallelPostTest, PlainHttpIsRefusedAtTransfer) {
    auto server = openServer();
    Targets targets;
    targets.add("http://127.0.0.1:" + std::to_string(server->port()) + "/plain");
    targets.add(server->url("/ok"));
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(targets.failures(0), 1);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_EQ(server->requestCount(), 1u);
}

TEST_F(ParallelPostTest, SlowDestinationTimesOutWithoutHoldingOthers) {
    // The time-out (the interval) has to let the fast exchange through on a slow machine; the
    // slow destination answers long after it (the server's stop() at the end cuts that short).
    writeDeliveryAttributes(3, 5, "No");
    auto slow = openServer(200, 60000);
    auto fast = openServer();
    Targets targets;
    targets.add(slow->url("/slow"));
    targets.add(fast->url("/fast"));
    const auto start = std::chrono::steady_clock::now();
    sendMultiperform(kReport, targets.list);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, 30s);
    EXPECT_EQ(targets.failures(0), 1);
    EXPECT_EQ(targets.failures(1), 0);
    EXPECT_EQ(fast->requestCount(), 1u);
}

// A URL longer than libcurl accepts for a text option is refused when it is set: the whole
// pass is abandoned, for the destinations before it too.
TEST_F(ParallelPostTest, DestinationRefusedAtSetupStopsTheWholePass) {
    auto server = openServer();
    Targets targets;
    targets.add(server->url("/before"));
    targets.add(server->url("/" + std::string(8000001, 'a')));
    targets.add(server->url("/after"));
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    EXPECT_TRUE(log.contains(2, "libcurl CURLOPT_URL failed")) << log.dump();
    EXPECT_EQ(server->requestCount(), 0u);
    EXPECT_EQ(server->connectionsAccepted(), 0);
    for (std::size_t i = 0; i < targets.list.size(); ++i) {
        EXPECT_EQ(targets.failures(i), 0);
    }
    EXPECT_TRUE(log.contains(4, "Exiting sendMultiperform Function"));
}

TEST_F(ParallelPostTest, ThirtyDestinationsInOnePass) {
    auto server = openServer();
    Targets targets;
    for (int i = 0; i < kMaxParallelDestinations; ++i) {
        targets.add(server->url("/d" + std::to_string(i)));
    }
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 30u);
    EXPECT_GT(server->peakLiveConnections(), 1);
}

TEST_F(ParallelPostTest, MoreThanThirtyIsRefused) {
    auto server = openServer();
    Targets targets;
    for (int i = 0; i <= kMaxParallelDestinations; ++i) {
        targets.add(server->url("/d" + std::to_string(i)));
    }
    LogCapture log;
    sendMultiperform(kReport, targets.list);
    EXPECT_EQ(server->requestCount(), 0u);
    EXPECT_TRUE(log.contains(2, "Too many destinations for one pass: 31"));
}

TEST(CountDeliveryFailureTest, ComparesWholeUrls) {
    std::vector<DeliveryTarget> targets = {makeTarget("https://h/ab"), makeTarget("https://h/a"),
                                           makeTarget("https://h/a")};
    countDeliveryFailure(targets, "https://h/a", CURLE_COULDNT_CONNECT);
    EXPECT_EQ(targets[0].failureCount, 0);
    EXPECT_EQ(targets[1].failureCount, 1);
    EXPECT_EQ(targets[2].failureCount, 0);
    countDeliveryFailure(targets, "https://h/abc", CURLE_COULDNT_CONNECT);
    countDeliveryFailure(targets, "https://h/", CURLE_COULDNT_CONNECT);
    countDeliveryFailure(targets, nullptr, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(targets[0].failureCount, 0);
    EXPECT_EQ(targets[1].failureCount, 1);
    EXPECT_EQ(targets[1].outcome().reason, CURLE_COULDNT_CONNECT);
}

} // namespace
} // namespace rfevent::testkit
