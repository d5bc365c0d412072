// A store or report written by someone else cannot cost other subscriptions their delivery,
// and a store kept behind a link is changed where it really lives.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/paths.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "subscriptions/invalid_dest_internal.h"
#include "subscriptions/queue_sandbox.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"
#include "subscriptions/store.h"

using namespace rfevent;
namespace tk = rfevent::testkit;

namespace {

const char kReport[] = "{\"Id\":\"CPUUsage\",\"MetricValues\":[]}";

class HostileStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::prepareQueueSandbox(1, 10);
        server_ = std::make_unique<tk::HttpsServer>(tk::pki()); // asks for the client cert
    }

    Json::Value metric(const std::string& path) const {
        Json::Value subscription(Json::objectValue);
        subscription["EventFormatType"] = "MetricReport";
        subscription["Destination"] = server_->url(path);
        return subscription;
    }

    // The paths the destination was posted to, sorted: the transfers of one parallel pass
    // arrive in whatever order their handshakes end.
    std::vector<std::string> targets() const {
        std::vector<std::string> out;
        for (const tk::RecordedRequest& request : server_->requests()) {
            out.push_back(request.target);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    std::unique_ptr<tk::HttpsServer> server_;
};

std::vector<std::string> folderEntries(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') {
                names.push_back(entry->d_name);
            }
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string closedUrl(const std::string& path) {
    return "https://127.0.0.1:" + std::to_string(tk::HttpsServer::closedLoopbackPort()) + path;
}

TEST_F(HostileStoreTest, WronglyTypedKeysSkipOnlyTheirSubscription) {
    Json::Value store(Json::objectValue);
    const char* keys[] = {"Destination",      "DeliveryRetryPolicy",
                          "SubscriptionType", "SubscriptionStateAfterRetry",
                          "EventFormatType",  "HttpHeaders"};
    int n = 0;
    for (const char* key : keys) {
        for (const Json::Value& bad :
             {Json::Value(Json::objectValue), Json::Value(Json::arrayValue), Json::Value(7)}) {
            if (std::string(key) == "HttpHeaders" && bad.isArray()) {
                continue; // an array is what HttpHeaders should be
            }
            Json::Value subscription = metric("/bad");
            subscription[key] = bad;
            store["bad" + std::to_string(n++)] = subscription;
        }
    }
    Json::Value headers(Json::arrayValue);
    headers.append(Json::Value(Json::arrayValue)); // an element that is not an object
    store["badHeaders"] = metric("/bad");
    store["badHeaders"]["HttpHeaders"] = headers;
    store["good"] = metric("/good");
    store["zzz"] = metric("/last");
    tk::writeSubscriptionStore(store);

    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(targets(), (std::vector<std::string>{"/good", "/last"}));
    EXPECT_EQ(log.count(2, "Subscription bad0 skipped: Destination has the wrong JSON type"), 1)
        << log.dump();
    EXPECT_EQ(log.count(2, "Subscription badHeaders skipped: HttpHeaders has the wrong JSON type"),
              1);
    EXPECT_EQ(log.count(2, "has the wrong JSON type"), n + 1);
    EXPECT_EQ(queuedRecordCount(), 0u);
}

TEST_F(HostileStoreTest, ASubscriptionThatIsNotAnObjectIsSkippedWithALine) {
    Json::Value store(Json::objectValue);
    store["a"] = 5;
    store["b"] = metric("/b");
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(targets(), std::vector<std::string>{"/b"});
    EXPECT_EQ(log.count(2, "Subscription a skipped: the subscription has the wrong JSON type"), 1)
        << log.dump();
}

TEST_F(HostileStoreTest, AReportThatIsNotAnObjectReachesTheUnfilteredSubscriptionsOnly) {
    Json::Value store(Json::objectValue);
    store["all"] = metric("/all");
    store["filtered"] = metric("/filtered");
    store["filtered"]["MetricReportDefinitions"].append(Json::Value(Json::objectValue));
    store["filtered"]["MetricReportDefinitions"][0]["@odata.id"] = "/definitions/x";
    tk::writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription("[1,2,3]"), 0);
    EXPECT_EQ(targets(), std::vector<std::string>{"/all"});
    EXPECT_EQ(server_->requests()[0].body, "[1,2,3]");
}

TEST_F(HostileStoreTest, AStoreThatIsNotAnObjectHasNoSubscriptions) {
    for (const char* text : {"null", "[]", "[{\"Destination\":\"x\"}]", "42", "\"text\""}) {
        tk::writeFile(fixedPath(FixedPath::SubscriptionStore), text);
        EXPECT_EQ(send_report_to_subscription(kReport), 0) << text;
        EXPECT_EQ(probeInvalidDestinationsOnce(), ProbeCycle::Continue)
            << text; // the probing thread goes on
        EXPECT_EQ(setSubscriptionState("0", "Disabled"), -1) << text;
        EXPECT_EQ(tk::readFile(fixedPath(FixedPath::SubscriptionStore)), text);
    }
    EXPECT_EQ(server_->requestCount(), 0u);
}

TEST_F(HostileStoreTest, AMutualTlsDestinationGetsTheReportOnTheFirstPass) {
    Json::Value store(Json::objectValue);
    store["m"] = metric("/m");
    tk::writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(server_->requestCount(), 1u);
    EXPECT_TRUE(server_->requests()[0].clientCertVerified);
    EXPECT_EQ(server_->requests()[0].body, kReport);
    EXPECT_EQ(queuedRecordCount(), 0u); // nothing left for the re-send
}

TEST_F(HostileStoreTest, ADestinationWithoutAPathIsQueuedWhenItFails) {
    tk::writeDeliveryAttributes(1, 0, "No");       // an absent destination fails at once: no wait
    const std::string destination = closedUrl(""); // "https://127.0.0.1:<port>", no path
    Json::Value store(Json::objectValue);
    store["s"] = metric("/unused");
    store["s"]["Destination"] = destination;
    store["s"]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    tk::writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    EXPECT_EQ(queuedRecordCount(), 1u);
    drainInvalidDestinationQueueOnce();
    EXPECT_FALSE(tk::readSubscriptionStore().isMember("s")); // its retry policy was applied
}

TEST_F(HostileStoreTest, AStoreBehindALinkIsReplacedWhereItLives) {
    const std::string real = tk::rooted("/flash/persistent/subscriptions.json");
    ::mkdir(tk::rooted("/flash").c_str(), 0755);
    ::mkdir(tk::rooted("/flash/persistent").c_str(), 0755);
    Json::Value store(Json::objectValue);
    store["s"] = metric("/s");
    store["t"] = metric("/t");
    tk::writeFile(real, tk::compactJson(store));
    const std::string link = fixedPath(FixedPath::SubscriptionStore);
    ::unlink(link.c_str());
    ASSERT_EQ(::symlink(real.c_str(), link.c_str()), 0);

    EXPECT_EQ(setSubscriptionState("s", "Disabled"), 0);
    EXPECT_EQ(addInvalidMemberinSubscription("t"), 0);
    EXPECT_EQ(removeSubscription("t"), 0);

    struct stat info;
    ASSERT_EQ(::lstat(link.c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode)) << "the link was replaced by a file";
    Json::Value persisted = tk::parseJson(tk::readFile(real));
    EXPECT_EQ(persisted["s"]["SubscriptionStateAfterRetry"], "Disabled");
    EXPECT_FALSE(persisted.isMember("t"));
    // Each rewrite went through a temporary file beside the real store, and none is left.
    EXPECT_EQ(folderEntries(tk::rooted("/flash/persistent")),
              std::vector<std::string>{"subscriptions.json"});
    EXPECT_EQ(folderEntries(tk::rooted("/var/lib/lumenrest/redfish_subscriptions")),
              std::vector<std::string>{"subscriptions.json"});
}

TEST_F(HostileStoreTest, AnIdWithANulByteNeverStandsForAnotherSubscription) {
    // "a\0x" fails; "a", the text before the NUL, is healthy and must stay.
    tk::writeDeliveryAttributes(1, 0, "No");
    Json::Value store(Json::objectValue);
    const std::string nulId("a\0x", 3);
    store[nulId] = metric("/unused");
    store[nulId]["Destination"] = closedUrl("/gone");
    store[nulId]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    store["a"] = metric("/a");
    tk::writeSubscriptionStore(store);
    EXPECT_EQ(send_report_to_subscription(kReport), 0);
    ASSERT_EQ(queuedRecordCount(), 1u);
    drainInvalidDestinationQueueOnce();
    Json::Value after = tk::readSubscriptionStore();
    EXPECT_TRUE(after.isMember("a"));
    EXPECT_FALSE(after.isMember(nulId));
    EXPECT_EQ(removeSubscription(std::string("a\0y", 3)), -1);
    EXPECT_TRUE(tk::readSubscriptionStore().isMember("a"));
}

} // namespace
