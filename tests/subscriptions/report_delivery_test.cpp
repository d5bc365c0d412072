// Metric reports to push subscriptions: selection, parallel delivery to real HTTPS servers,
// groups of at most 30 destinations, and queueing of failed destinations.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
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

const char kDefinition[] = "/redfish/v1/TelemetryService/MetricReportDefinitions/CPUUsage";
const char kReport[] = "{\"Id\":\"CPUUsage\",\"MetricReportDefinition\":{\"@odata.id\":"
                       "\"/redfish/v1/TelemetryService/MetricReportDefinitions/CPUUsage\"},"
                       "\"MetricValues\":[]}";

std::unique_ptr<HttpsServer> openServer() {
    HttpsServerOptions options;
    options.requireClientCert = false;
    return std::make_unique<HttpsServer>(pki(), options);
}

std::string closedUrl(const std::string& path) {
    return "https://127.0.0.1:" + std::to_string(HttpsServer::closedLoopbackPort()) + path;
}

Json::Value links(const std::vector<std::string>& uris) {
    Json::Value list(Json::arrayValue);
    for (const std::string& uri : uris) {
        Json::Value link(Json::objectValue);
        link["@odata.id"] = uri;
        list.append(link);
    }
    return list;
}

Json::Value metricSubscription(const std::string& destination) {
    Json::Value subscription(Json::objectValue);
    subscription["EventFormatType"] = "MetricReport";
    subscription["Destination"] = destination;
    return subscription;
}

std::set<std::string> receivedPaths(const HttpsServer& server) {
    std::set<std::string> paths;
    for (const RecordedRequest& request : server.requests()) {
        paths.insert(request.target);
    }
    return paths;
}

// Snapshot of the queue, taken under its mutex.
struct QueueView {
    std::vector<std::string> destinations;
    std::vector<std::string> names;
    std::vector<InvalidDestinationRecord> records;
};

QueueView queueView() {
    InvalidDestinationQueue& queue = invalidDestinationQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    QueueView view;
    for (const InvalidDestinationRecord& record : queue.records) {
        view.destinations.push_back(record.destination);
        view.records.push_back(record);
    }
    view.names = queue.names;
    return view;
}

void fillQueue(int count, const std::string& destination) {
    for (int i = 0; i < count; ++i) {
        pushInvalidDestination(InvalidDestinationRecord{destination, "filler", "",
                                                        Json::Value(Json::objectValue), kReport});
    }
}

class ReportDeliveryTest : public ::testing::Test {
  protected:
    void SetUp() override { prepareQueueSandbox(1, kRoomyIntervalSeconds); }
};

TEST_F(ReportDeliveryTest, NullReport) {
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(nullptr), -1);
    EXPECT_TRUE(log.contains(2, "Invalid report"));
}

TEST_F(ReportDeliveryTest, MissingStore) {
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), -1);
    EXPECT_TRUE(log.contains(4, "Subscription file does not exist"));
    EXPECT_FALSE(log.containsAny("sendMultiperform"));
}

TEST_F(ReportDeliveryTest, UnparsableStore) {
    writeFile(rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"), "{\"a\":");
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), -1);
    EXPECT_TRUE(log.contains(4, "Subscription file exists"));
    EXPECT_TRUE(log.contains(2, "Fail to parse event subscription file"));
    EXPECT_FALSE(log.containsAny("Event Destination count"));
}

TEST_F(ReportDeliveryTest, EmptyStoreStillMakesOnePass) {
    writeSubscriptionStore(Json::Value(Json::objectValue));
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(log.count(5, "Event Destination count = 0"), 1);
}

TEST_F(ReportDeliveryTest, SelectionRules) {
    auto server = openServer();
    const std::string other = "/redfish/v1/TelemetryService/MetricReportDefinitions/Other";
    Json::Value store(Json::objectValue);
    store["a"] = metricSubscription(server->url("/a")); // no filter: every report
    store["b"] = metricSubscription(server->url("/b"));
    store["b"]["EventFormatType"] = "Event";
    store["c"] = metricSubscription(server->url("/c"));
    store["c"]["MetricReportDefinitions"] = links({other, kDefinition});
    store["d"] = metricSubscription(server->url("/d")); // definitions win over origins
    store["d"]["MetricReportDefinitions"] = links({other});
    store["d"]["OriginResources"] = links({kDefinition});
    store["e"] = metricSubscription(server->url("/e")); // empty definitions: origins decide
    store["e"]["MetricReportDefinitions"] = Json::Value(Json::arrayValue);
    store["e"]["OriginResources"] = links({kDefinition});
    store["f"] = metricSubscription(server->url("/f")); // null definitions: origins decide
    store["f"]["MetricReportDefinitions"] = Json::Value();
    store["f"]["OriginResources"] = links({other});
    store["g"] = metricSubscription(server->url("/g"));
    store["g"]["InvalidDestination"] = true;
    store["g2"] = metricSubscription(server->url("/g2"));
    store["g2"]["InvalidDestination"] = false;
    store["g2"]["MetricReportDefinitions"] = links({kDefinition});
    store["g3"] = metricSubscription(server->url("/g3"));
    store["g3"]["InvalidDestination"] = false;
    store["g3"]["OriginResources"] = links({kDefinition});
    store["h"] = metricSubscription(server->url("/h"));
    store["h"]["SubscriptionType"] = "Syslog";
    store["i"] = metricSubscription(server->url("/i"));
    store["i"]["SubscriptionStateAfterRetry"] = "Disabled";
    store["j"] = metricSubscription(server->url("/j"));
    store["j"]["SubscriptionStateAfterRetry"] = "Enabled";
    store["k"] = metricSubscription(server->url("/k"));
    store["k"].removeMember("Destination");
    store["l"] = metricSubscription(server->url("/l"));
    store["l"].removeMember("Destination");
    store["l"]["MetricReportDefinitions"] = links({kDefinition});
    store["m"] = metricSubscription(server->url("/m"));
    store["m"].removeMember("EventFormatType");
    writeSubscriptionStore(store);

    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(receivedPaths(*server), (std::set<std::string>{"/a", "/c", "/e", "/j"}));
    ASSERT_EQ(server->requestCount(), 4u);
    EXPECT_EQ(server->requests()[0].body, kReport);
    EXPECT_TRUE(log.contains(4, "Could not find [MetricReport] in [b] subscription"));
    EXPECT_TRUE(log.contains(4, "Could not find [MetricReport] in [m] subscription"));
    EXPECT_TRUE(log.contains(4, "Found [MetricReport] in [a] subscription"));
    EXPECT_TRUE(log.contains(
        4, "Could not find [OriginResources] in [a] subscription. Obtaining the Destination"));
    EXPECT_TRUE(log.contains(4, "Found [Destination] in [a] subscription."));
    EXPECT_TRUE(log.contains(4, "Could not find valid [Destination] in [g] subscription."));
    EXPECT_TRUE(log.contains(4, "Could not find valid [Destination] in [g2] subscription."));
    EXPECT_TRUE(log.contains(4, "Could not find valid [Destination] in [k] subscription."));
    EXPECT_TRUE(log.contains(4, "Could not find valid [Destination] in [l] subscription."));
    EXPECT_EQ(log.count(4, "Disabled subscription found, skipping..."), 1);
    EXPECT_FALSE(log.containsAny("[h]")); // a Syslog subscription is skipped silently
    EXPECT_EQ(log.count(5, "Report match the subscription data"), 3); // c, e, l
    EXPECT_TRUE(log.contains(5, "Event Destination count = 4"));
    EXPECT_TRUE(log.contains(4, "Exiting send_report_to_subscription Function"));
}

TEST_F(ReportDeliveryTest, ReportWithoutDefinitionReachesOnlyUnfilteredSubscriptions) {
    auto server = openServer();
    Json::Value store(Json::objectValue);
    store["open"] = metricSubscription(server->url("/open"));
    store["defs"] = metricSubscription(server->url("/defs"));
    store["defs"]["MetricReportDefinitions"] = links({kDefinition});
    store["origins"] = metricSubscription(server->url("/origins"));
    store["origins"]["OriginResources"] = links({kDefinition});
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription("{\"Id\":\"NoDefinition\"}"), 0);
    EXPECT_EQ(receivedPaths(*server), (std::set<std::string>{"/open"}));
}

TEST_F(ReportDeliveryTest, UnparsableReportStillReachesUnfilteredSubscriptions) {
    auto server = openServer();
    Json::Value store(Json::objectValue);
    store["open"] = metricSubscription(server->url("/open"));
    store["defs"] = metricSubscription(server->url("/defs"));
    store["defs"]["MetricReportDefinitions"] = links({kDefinition});
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription("not json"), 0);
    EXPECT_EQ(receivedPaths(*server), (std::set<std::string>{"/open"}));
    ASSERT_EQ(server->requestCount(), 1u);
    EXPECT_EQ(server->requests()[0].body, "not json");
}

TEST_F(ReportDeliveryTest, DeliveredReportsQueueNothing) {
    auto server = openServer();
    Json::Value store(Json::objectValue);
    store["1"] = metricSubscription(server->url("/1"));
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(server->requestCount(), 1u);
    EXPECT_EQ(queuedRecordCount(), 0u);
    EXPECT_EQ(readSubscriptionStore(), store); // the report path never changes the store
}

TEST_F(ReportDeliveryTest, FailedDestinationIsQueuedWithEverythingForTheResend) {
    auto server = openServer();
    const std::string gone = closedUrl("/gone");
    Json::Value store(Json::objectValue);
    store["ok"] = metricSubscription(server->url("/ok"));
    store["bad"] = metricSubscription(gone);
    store["bad"]["DeliveryRetryPolicy"] = "SuspendRetries";
    store["bad"]["HttpHeaders"][0]["X-Auth"] = "abc";
    store["bad"]["Extra"] = 7;
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(server->requestCount(), 1u);
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 1u);
    const InvalidDestinationRecord& record = view.records[0];
    EXPECT_EQ(record.destination, gone);
    EXPECT_EQ(record.subscriptionId, "bad");
    EXPECT_EQ(record.retryPolicy, "SuspendRetries");
    EXPECT_EQ(record.report, kReport);
    EXPECT_EQ(record.subscription, store["bad"]);
    EXPECT_EQ(view.names, std::vector<std::string>{gone});
    EXPECT_EQ(queuedRecordCount(), 1u);
    EXPECT_EQ(log.count(4, "Found subscription for retry"), 1);
}

TEST_F(ReportDeliveryTest, MissingPolicyIsQueuedAsEmptyText) {
    Json::Value store(Json::objectValue);
    store["bad"] = metricSubscription(closedUrl("/gone"));
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 1u);
    EXPECT_EQ(view.records[0].retryPolicy, "");
}

TEST_F(ReportDeliveryTest, SharedFailingDestinationIsQueuedTwiceWhileTheQueueIsShort) {
    const std::string gone = closedUrl("/shared");
    Json::Value store(Json::objectValue);
    store["first"] = metricSubscription(gone);
    store["second"] = metricSubscription(gone);
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    // Only the first target counts the failures of both transfers, and it is queued.
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 1u);
    EXPECT_EQ(view.records[0].subscriptionId, "first");
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    view = queueView();
    ASSERT_EQ(view.records.size(), 2u);
    EXPECT_EQ(view.names, (std::vector<std::string>{gone, gone}));
}

TEST_F(ReportDeliveryTest, TwoSubscriptionsFailingAtDifferentDestinationsAreBothQueued) {
    Json::Value store(Json::objectValue);
    store["first"] = metricSubscription(closedUrl("/one"));
    store["second"] = metricSubscription(closedUrl("/two"));
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 2u);
    EXPECT_EQ(view.records[0].subscriptionId, "first");
    EXPECT_EQ(view.records[1].subscriptionId, "second");
}

TEST_F(ReportDeliveryTest, FifteenQueuedRecordsDoNotStopADuplicate) {
    const std::string gone = closedUrl("/dup");
    fillQueue(15, gone);
    Json::Value store(Json::objectValue);
    store["bad"] = metricSubscription(gone);
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(queuedRecordCount(), 16u);
    EXPECT_FALSE(log.containsAny("already in Invalid Queue"));
}

TEST_F(ReportDeliveryTest, SixteenQueuedRecordsStopADuplicateButNotANewcomer) {
    const std::string gone = closedUrl("/dup");
    const std::string newcomer = closedUrl("/new");
    fillQueue(16, gone);
    Json::Value store(Json::objectValue);
    store["bad"] = metricSubscription(gone);
    store["new"] = metricSubscription(newcomer);
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(log.count(4, gone + " already in Invalid Queue"), 1) << log.dump();
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 17u);
    EXPECT_EQ(view.destinations.back(), newcomer);
    EXPECT_EQ(view.names.back(), newcomer);
}

TEST_F(ReportDeliveryTest, DestinationRefusedAtSetupMeansNobodyReceives) {
    auto server = openServer();
    Json::Value store(Json::objectValue);
    store["a"] = metricSubscription(server->url("/a"));
    store["b"] = metricSubscription(server->url("/" + std::string(8000001, 'b')));
    store["c"] = metricSubscription(server->url("/c"));
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(server->requestCount(), 0u);
    EXPECT_EQ(queuedRecordCount(), 0u);
}

void expectEveryoneReceives(int subscriptions) {
    auto first = openServer();
    auto second = openServer();
    Json::Value store(Json::objectValue);
    std::set<std::string> expectedFirst;
    std::set<std::string> expectedSecond;
    for (int i = 0; i < subscriptions; ++i) {
        const std::string path = "/s" + std::to_string(i);
        HttpsServer& server = (i % 2 == 0) ? *first : *second;
        (i % 2 == 0 ? expectedFirst : expectedSecond).insert(path);
        store["sub" + std::to_string(1000 + i)] = metricSubscription(server.url(path));
    }
    writeSubscriptionStore(store);
    LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(receivedPaths(*first), expectedFirst);
    EXPECT_EQ(receivedPaths(*second), expectedSecond);
    EXPECT_EQ(first->requestCount() + second->requestCount(),
              static_cast<std::size_t>(subscriptions));
    int groups = 0;
    for (int left = subscriptions; left > 0; left -= 30) {
        const int size = left > 30 ? 30 : left;
        EXPECT_TRUE(log.contains(5, "Event Destination count = " + std::to_string(size)));
        ++groups;
    }
    EXPECT_EQ(log.countAny("Event Destination count = "), groups);
    EXPECT_FALSE(log.containsAny("Too many destinations"));
}

TEST_F(ReportDeliveryTest, ThirtyOneSubscriptionsAllReceive) {
    expectEveryoneReceives(31);
}

TEST_F(ReportDeliveryTest, SixtyFiveSubscriptionsAllReceive) {
    expectEveryoneReceives(65);
}

TEST_F(ReportDeliveryTest, FailuresOfEveryGroupAreQueued) {
    auto server = openServer();
    Json::Value store(Json::objectValue);
    for (int i = 0; i < 35; ++i) {
        const std::string id = "sub" + std::to_string(1000 + i);
        const bool failing = (i == 3 || i == 33);
        store[id] = metricSubscription(failing ? closedUrl("/f" + std::to_string(i))
                                               : server->url("/s" + std::to_string(i)));
    }
    writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(server->requestCount(), 33u);
    QueueView view = queueView();
    ASSERT_EQ(view.records.size(), 2u);
    EXPECT_EQ(view.records[0].subscriptionId, "sub1003");
    EXPECT_EQ(view.records[1].subscriptionId, "sub1033");
}

TEST(IsReportMatchTheSubscriptionTest, MatchesExactOdataIds) {
    resetSandbox();
    LogCapture log;
    EXPECT_FALSE(isReportMatchTheSubscription(Json::Value(Json::arrayValue), kDefinition));
    EXPECT_FALSE(isReportMatchTheSubscription(Json::Value(Json::arrayValue), ""));
    Json::Value list = links({"/x", kDefinition});
    EXPECT_TRUE(isReportMatchTheSubscription(list, kDefinition));
    EXPECT_EQ(log.count(5, "Report match the subscription data"), 1);
    std::string upper = kDefinition;
    upper[1] = 'R';
    EXPECT_FALSE(isReportMatchTheSubscription(list, upper));
    EXPECT_FALSE(isReportMatchTheSubscription(list, std::string(kDefinition) + "/"));
    EXPECT_FALSE(isReportMatchTheSubscription(list, "/x/"));
    Json::Value mixed(Json::arrayValue);
    mixed.append(Json::Value(Json::objectValue)); // no "@odata.id": passed over
    mixed[0]["Name"] = "nothing";
    mixed.append(links({kDefinition})[0]);
    EXPECT_TRUE(isReportMatchTheSubscription(mixed, kDefinition));
}

} // namespace
} // namespace rfevent::testkit
