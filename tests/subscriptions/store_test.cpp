#include "subscriptions/store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

const char kStore[] = "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json";
const char kSlotKey[] = "Tavik.Embedded.1#Telemetry.1#TelemetrySubscription7";

Json::Value sampleStore() {
    Json::Value store(Json::objectValue);
    store["1"]["Destination"] = "https://a.example/events";
    store["1"]["EventFormatType"] = "Event";
    store["1"]["EventTypes"].append("Alert");
    store["1"]["VendorExtra"]["Nested"] = 5;
    store["2"]["Destination"] = "https://b.example/reports";
    store["2"]["EventFormatType"] = "MetricReport";
    store["2"]["SubscriptionValue"] = 7;
    store["2"]["Unknown"] = "kept";
    store["3"]["Destination"] = "https://c.example/reports";
    store["3"]["EventFormatType"] = "MetricReport";
    return store;
}

std::string styled(const Json::Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }
    std::string storeText() const { return tk::readFile(tk::rooted(kStore)); }
};

TEST_F(StoreTest, RemoveDeletesOnlyThatSubscriptionAndKeepsUnknownMembers) {
    tk::writeSubscriptionStore(sampleStore());
    EXPECT_EQ(removeSubscription("1"), 0);
    Json::Value expected = sampleStore();
    expected.removeMember("1");
    EXPECT_EQ(tk::readSubscriptionStore(), expected);
    // Written in the library's styled stream form.
    EXPECT_EQ(storeText(), styled(expected));
}

TEST_F(StoreTest, UnknownIdReturnsMinusOneAndLeavesTheFileAlone) {
    tk::writeSubscriptionStore(sampleStore());
    std::string before = storeText();
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("4"), -1);
    EXPECT_EQ(setSubscriptionState("4", "Disabled"), -1);
    EXPECT_EQ(addInvalidMemberinSubscription("4"), -1);
    // Ids are compared exactly: no prefix and no case folding.
    EXPECT_EQ(removeSubscription("1 "), -1);
    EXPECT_EQ(storeText(), before);
    EXPECT_EQ(log.count(2, "Could not find the matching subscription"), 3);
}

TEST_F(StoreTest, MissingStoreReturnsMinusOneWithItsMessages) {
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("1"), -1);
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), -1);
    EXPECT_EQ(addInvalidMemberinSubscription("1"), -1);
    EXPECT_EQ(log.count(4, "Subscription file does not present."), 2);
    EXPECT_EQ(log.count(4, "Subscription file does not exist"), 1);
    EXPECT_FALSE(tk::fileExists(tk::rooted(kStore)));
}

TEST_F(StoreTest, UnparsableStoreReturnsMinusOneAndIsLeftAlone) {
    tk::writeFile(tk::rooted(kStore), "{ \"1\": ");
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("1"), -1);
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), -1);
    EXPECT_EQ(addInvalidMemberinSubscription("1"), -1);
    EXPECT_EQ(storeText(), "{ \"1\": ");
    EXPECT_EQ(log.count(2, "subscriber File Data parsing failed"), 2);
    EXPECT_EQ(log.count(2, "Fail to parse event subscription file"), 1);
}

TEST_F(StoreTest, RemovingMetricReportSubscriptionReleasesItsSlot) {
    tk::writeSubscriptionStore(sampleStore());
    tk::setAttribute(kSlotKey, "held");
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("2"), 0);
    EXPECT_FALSE(tk::readSubscriptionStore().isMember("2"));
    Json::Value attributes =
        tk::parseJson(tk::readFile(tk::rooted("/var/lib/rfevent/attributes.json")));
    EXPECT_EQ(attributes[kSlotKey], Json::Value(""));
    EXPECT_TRUE(log.contains(4, "EventFormatType member exists"));
    EXPECT_TRUE(log.contains(4, "MetricReport Subscr is there"));
    EXPECT_TRUE(log.contains(4, "recreated subscription file"));
}

TEST_F(StoreTest, FailedSlotReleaseStillRemovesTheSubscription) {
    tk::writeSubscriptionStore(sampleStore());
    // Without its data folder the stand-alone configuration manager cannot store attributes.
    std::filesystem::remove_all(tk::rooted("/var/lib/rfevent"));
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("2"), 0);
    EXPECT_FALSE(tk::readSubscriptionStore().isMember("2"));
    EXPECT_EQ(log.count(2, "Set Global Telemetry Attribute returned error : 5"), 1);
}

TEST_F(StoreTest, SubscriptionWithoutSlotIsRemovedWithoutConfigurationCall) {
    tk::writeSubscriptionStore(sampleStore());
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("3"), 0);
    EXPECT_FALSE(tk::readSubscriptionStore().isMember("3"));
    EXPECT_FALSE(tk::fileExists(tk::rooted("/var/lib/rfevent/attributes.json")));
    EXPECT_FALSE(log.containsAny("MetricReport Subscr is there"));
}

TEST_F(StoreTest, RemovingOtherFormatsLogsWhyNoSlotIsReleased) {
    Json::Value store = sampleStore();
    store["4"]["Destination"] = "https://d.example/";
    tk::writeSubscriptionStore(store);
    tk::LogCapture log;
    EXPECT_EQ(removeSubscription("1"), 0);
    EXPECT_TRUE(log.contains(4, "Not a MetricReport Subscriber"));
    EXPECT_EQ(removeSubscription("4"), 0);
    EXPECT_TRUE(log.contains(4, "EventFormatType is not there"));
    EXPECT_FALSE(tk::fileExists(tk::rooted("/var/lib/rfevent/attributes.json")));
}

TEST_F(StoreTest, SettingTheStateTwiceKeepsOneMemberWithTheLastText) {
    tk::writeSubscriptionStore(sampleStore());
    tk::LogCapture log;
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), 0);
    EXPECT_EQ(setSubscriptionState("1", "Paused"), 0);
    Json::Value expected = sampleStore();
    expected["1"]["SubscriptionStateAfterRetry"] = "Paused";
    EXPECT_EQ(tk::readSubscriptionStore(), expected);
    EXPECT_EQ(storeText().find("SubscriptionStateAfterRetry"),
              storeText().rfind("SubscriptionStateAfterRetry"));
    EXPECT_EQ(log.count(4, "updated subscription file"), 2);
}

TEST_F(StoreTest, InvalidDestinationTagIsABooleanAndOthersSurvive) {
    tk::writeSubscriptionStore(sampleStore());
    tk::LogCapture log;
    EXPECT_EQ(addInvalidMemberinSubscription("2"), 0);
    Json::Value expected = sampleStore();
    expected["2"]["InvalidDestination"] = true;
    Json::Value stored = tk::readSubscriptionStore();
    EXPECT_EQ(stored, expected);
    EXPECT_TRUE(stored["2"]["InvalidDestination"].isBool());
    EXPECT_TRUE(log.contains(4, "Subscription file exists"));
}

TEST_F(StoreTest, RewriteLeavesNoTemporaryFileAndKeepsPermissions) {
    tk::writeSubscriptionStore(sampleStore());
    std::string path = tk::rooted(kStore);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), 0);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(
             tk::rooted("/var/lib/lumenrest/redfish_subscriptions"))) {
        (void)entry;
        ++files;
    }
    EXPECT_EQ(files, 1);
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
}

// Giving the store another owner takes root; the suite runs as root in CI.
bool canChangeOwners() {
    return ::geteuid() == 0;
}

void expectOwnerAndMode(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, owner);
    EXPECT_EQ(info.st_gid, group);
    EXPECT_EQ(info.st_mode & 07777, mode);
}

TEST_F(StoreTest, EveryRewriteKeepsTheStoresOwnerGroupAndMode) {
    if (!canChangeOwners()) {
        GTEST_SKIP() << "NOT CHECKED: run as root to give the store another owner";
    }
    tk::writeSubscriptionStore(sampleStore());
    const std::string path = tk::rooted(kStore);
    ASSERT_EQ(::chown(path.c_str(), 4321, 4321), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), 0);
    expectOwnerAndMode(path, 4321, 4321, 0640);
    EXPECT_EQ(addInvalidMemberinSubscription("2"), 0);
    expectOwnerAndMode(path, 4321, 4321, 0640);
    EXPECT_EQ(removeSubscription("3"), 0);
    expectOwnerAndMode(path, 4321, 4321, 0640);
    EXPECT_FALSE(tk::readSubscriptionStore().isMember("3"));
}

TEST_F(StoreTest, AStoreBehindALinkKeepsItsTargetsOwner) {
    if (!canChangeOwners()) {
        GTEST_SKIP() << "NOT CHECKED: run as root to give the store another owner";
    }
    const std::string real = tk::rooted("/var/lib/lumenrest/real-subscriptions.json");
    tk::writeFile(real, styled(sampleStore()));
    ASSERT_EQ(::chown(real.c_str(), 4321, 4322), 0);
    ASSERT_EQ(::chmod(real.c_str(), 0600), 0);
    const std::string link = tk::rooted(kStore);
    ::unlink(link.c_str());
    ASSERT_EQ(::symlink(real.c_str(), link.c_str()), 0);
    EXPECT_EQ(setSubscriptionState("1", "Disabled"), 0);
    expectOwnerAndMode(real, 4321, 4322, 0600);
    EXPECT_EQ(tk::parseJson(tk::readFile(real))["1"]["SubscriptionStateAfterRetry"], "Disabled");
}

TEST_F(StoreTest, ANewStoreIsReadableByOthersWhateverTheUmask) {
    const mode_t saved = ::umask(077);
    const bool written = rfevent::writeSubscriptionStore(sampleStore());
    ::umask(saved);
    ASSERT_TRUE(written);
    expectOwnerAndMode(tk::rooted(kStore), ::geteuid(), ::getegid(), 0644);
}

TEST_F(StoreTest, WriteSubscriptionStoreReplacesTheWholeFile) {
    tk::writeSubscriptionStore(sampleStore());
    Json::Value document(Json::objectValue);
    document["9"]["Destination"] = "https://z.example/";
    EXPECT_TRUE(rfevent::writeSubscriptionStore(document));
    EXPECT_EQ(storeText(), styled(document));
}

TEST_F(StoreTest, WriteSubscriptionStoreFailsWithoutItsFolder) {
    std::filesystem::remove_all(tk::rooted("/var/lib/lumenrest/redfish_subscriptions"));
    tk::LogCapture log;
    EXPECT_FALSE(rfevent::writeSubscriptionStore(sampleStore()));
    EXPECT_EQ(log.count(2, "Cannot create a temporary file"), 1);
}

DeliveryTarget makeTarget(const char* destination) {
    DeliveryTarget target;
    target.destination = destination;
    target.subscriptionId = "1";
    target.retryPolicy = "SuspendRetries";
    target.subscription = sampleStore()["1"];
    return target;
}

TEST_F(StoreTest, RemoveFromSubscriptionReleasesEveryRecordAndEmptiesTheVector) {
    std::vector<DeliveryTarget> targets = {makeTarget("https://a/"), makeTarget("https://b/")};
    tk::LogCapture log;
    removeFromSubscription(targets);
    EXPECT_TRUE(targets.empty());
    EXPECT_EQ(log.count(4, "Before Freeing the ptr["), 2);
}

} // namespace
