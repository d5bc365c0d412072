#include "subscriptions/store.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "base/durable_file.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "platform/platform.h"

namespace rfevent {

namespace {

const char* storePath() {
    return rfevent::fixedPath(rfevent::FixedPath::SubscriptionStore);
}

// The first top-level member whose name is exactly id, or nullptr.
const Json::Value* findSubscription(const Json::Value& root, const std::string& id,
                                    std::string& matchedName) {
    for (auto it = root.begin(); it != root.end(); ++it) {
        if (it.name() == id) {
            matchedName = it.name();
            return &*it;
        }
    }
    return nullptr;
}

// Frees the telemetry slot held by a "MetricReport" subscription before it goes away.
void releaseTelemetrySlot(const Json::Value& subscription) {
    if (!subscription.isMember("EventFormatType")) {
        RF_LOG(kLogDebug, "[%s():%d]EventFormatType is not there");
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]EventFormatType member exists");
    if (subscription["EventFormatType"].asString() != "MetricReport") {
        RF_LOG(kLogDebug, "[%s():%d]Not a MetricReport Subscriber");
        return;
    }
    if (!subscription.isMember("SubscriptionValue")) {
        return;
    }
    RF_LOG(kLogDebug, "[%s():%d]MetricReport Subscr is there");
    char key[256] = {};
    std::snprintf(key, sizeof key, "Tavik.Embedded.1#Telemetry.1#TelemetrySubscription%d",
                  subscription["SubscriptionValue"].asInt());
    char value[256] = {};
    uint32_t status = 0;
    int rc = CfgSetAttribute(key, value, 0, &status);
    if (rc != 0) {
        RF_LOG(kLogError, "[%s():%d]Set Global Telemetry Attribute returned error : %d", rc);
    }
}

} // namespace

bool writeSubscriptionStore(const Json::Value& document) {
    std::ostringstream text;
    text << document;
    // A new store gets 0644: the REST server reads it too.
    const RewriteOutcome outcome = rewriteFileDurably(storePath(), text.str(), 0644);
    if (outcome.step == RewriteStep::Temporary) {
        RF_LOG(kLogError, "[%s():%d]Cannot create a temporary file for %s", outcome.target.c_str());
    } else if (!outcome.done()) {
        RF_LOG(kLogError, "[%s():%d]Writing the subscription store %s failed",
               outcome.target.c_str());
    }
    return outcome.done();
}

namespace {

// The store's log lines as one operation says them.
struct StoreTexts {
    const char* missing;    // level 4
    const char* present;    // level 4, or null
    const char* unparsable; // level 2
    const char* notFound;   // level 2, or null
};

const StoreTexts kRemoveOrSetTexts = {"Subscription file does not present.", nullptr,
                                      "subscriber File Data parsing failed\n",
                                      "Could not find the matching subscription"};
const StoreTexts kAddInvalidTexts = {"Subscription file does not exist\n",
                                     "Subscription file exists\n",
                                     "Fail to parse event subscription file\n", nullptr};

// The read-modify-write of every store operation: load the store, find the subscription whose
// name is exactly id, let change edit the document (given the matched name and the caller's
// spot to log under), rewrite the store.
// True when the document was changed and rewritten; false when the store is absent, does not
// parse or lacks the subscription.
template <typename Change>
bool modifySubscription(SourceSpot spot, const StoreTexts& texts, const std::string& id,
                        Change change) {
    const JsonFileTexts fileTexts = {kLogDebug, texts.missing, texts.present, texts.unparsable,
                                     "subscriber File Data Parsed Successfully\n"};
    Json::Value root;
    if (!loadJsonObject(spot, storePath(), fileTexts, root)) {
        return false;
    }
    std::string name;
    if (findSubscription(root, id, name) == nullptr) {
        if (texts.notFound != nullptr) {
            RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.notFound);
        }
        return false;
    }
    change(root, name, spot);
    writeSubscriptionStore(root); // its failure is logged; the result stays 0, as it always was
    return true;
}

} // namespace

int removeSubscription(const std::string& subscriptionId) {
    RF_ENTER();
    const bool changed = rfevent::modifySubscription(
        RF_HERE, rfevent::kRemoveOrSetTexts, subscriptionId,
        [](Json::Value& root, const std::string& name, SourceSpot spot) {
            releaseTelemetrySlot(root[name]);
            // By its whole name: the library's string form would stop at a NUL byte.
            root.removeMember(name.data(), name.data() + name.size(), nullptr);
            RF_LOG_AT(spot, kLogDebug, "[%s():%d]recreated subscription file");
        });
    RF_EXIT();
    return changed ? 0 : -1;
}

int addInvalidMemberinSubscription(const std::string& subscriptionId) {
    RF_ENTER();
    const bool changed =
        rfevent::modifySubscription(RF_HERE, rfevent::kAddInvalidTexts, subscriptionId,
                                    [](Json::Value& root, const std::string& name, SourceSpot) {
                                        root[name]["InvalidDestination"] = true;
                                    });
    RF_EXIT();
    return changed ? 0 : -1;
}

int setSubscriptionState(const std::string& subscriptionId, const char* state) {
    RF_ENTER();
    const bool changed = rfevent::modifySubscription(
        RF_HERE, rfevent::kRemoveOrSetTexts, subscriptionId,
        [state](Json::Value& root, const std::string& name, SourceSpot spot) {
            root[name]["SubscriptionStateAfterRetry"] = state;
            RF_LOG_AT(spot, kLogDebug, "[%s():%d]updated subscription file");
        });
    RF_EXIT();
    return changed ? 0 : -1;
}

void removeFromSubscription(std::vector<DeliveryTarget>& targets) {
    RF_ENTER();
    for (const DeliveryTarget& target : targets) {
        logRecordRelease(RF_HERE, target.subscription);
    }
    targets.clear();
    RF_EXIT();
}

} // namespace rfevent
