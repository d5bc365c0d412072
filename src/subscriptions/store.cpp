#include "subscriptions/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/log.h"
#include "platform/paths.h"
#include "rfevent/redfish_event.h"

using rfevent::kLogDebug;
using rfevent::kLogError;

namespace {

const char* storePath() {
    return rfevent::fixedPath(rfevent::FixedPath::SubscriptionStore);
}

bool storeExists() {
    struct stat info;
    return ::stat(storePath(), &info) == 0;
}

// Parses the whole store; the stream is closed before returning.
bool loadStore(Json::Value& root) {
    std::ifstream in(storePath());
    RF_Json_Reader reader;
    bool ok = reader.parse(in, root);
    in.close();
    return ok;
}

// The first top-level member whose name is exactly id, or nullptr.
const Json::Value* findSubscription(const Json::Value& root, const char* id,
                                    std::string& matchedName) {
    if (!root.isObject()) {
        return nullptr;
    }
    for (auto it = root.begin(); it != root.end(); ++it) {
        std::string name = it.name();
        if (name.size() == std::strlen(id) && name == id) {
            matchedName = name;
            return &*it;
        }
    }
    return nullptr;
}

bool writeAll(int fd, const std::string& text) {
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, data, left);
        if (n < 0) {
            return false;
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    return true;
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

namespace rfevent {

bool writeSubscriptionStore(const Json::Value& document) {
    std::string path = storePath();
    std::ostringstream text;
    text << document;
    std::string temp = path + ".tmp.XXXXXX";
    int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        RF_LOG(kLogError, "[%s():%d]Cannot create a temporary file for %s", path.c_str());
        return false;
    }
    // Keep the store's permissions: the REST server reads it too.
    struct stat info;
    mode_t mode = (::stat(path.c_str(), &info) == 0) ? (info.st_mode & 07777) : 0644;
    bool ok = ::fchmod(fd, mode) == 0;
    ok = writeAll(fd, text.str()) && ok;
    ok = (::close(fd) == 0) && ok;
    if (ok) {
        ok = ::rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        RF_LOG(kLogError, "[%s():%d]Writing the subscription store %s failed", path.c_str());
    }
    return ok;
}

} // namespace rfevent

int removeSubscription(const char* subscriptionId) {
    RF_ENTER();
    if (!storeExists()) {
        RF_LOG(kLogDebug, "[%s():%d]Subscription file does not present.");
        RF_EXIT();
        return -1;
    }
    Json::Value root;
    if (!loadStore(root)) {
        RF_LOG(kLogError, "[%s():%d]subscriber File Data parsing failed\n");
        RF_EXIT();
        return -1;
    }
    RF_LOG(kLogDebug, "[%s():%d]subscriber File Data Parsed Successfully\n");
    std::string name;
    const Json::Value* found = findSubscription(root, subscriptionId, name);
    if (found == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Could not find the matching subscription");
        RF_EXIT();
        return -1;
    }
    Json::Value subscription = *found;
    releaseTelemetrySlot(subscription);
    root.removeMember(name);
    RF_LOG(kLogDebug, "[%s():%d]recreated subscription file");
    rfevent::writeSubscriptionStore(root);
    RF_EXIT();
    return 0;
}

int addInvalidMemberinSubscription(const char* subscriptionId) {
    RF_ENTER();
    if (!storeExists()) {
        RF_LOG(kLogDebug, "[%s():%d]Subscription file does not exist\n");
        RF_EXIT();
        return -1;
    }
    RF_LOG(kLogDebug, "[%s():%d]Subscription file exists\n");
    Json::Value root;
    if (!loadStore(root)) {
        RF_LOG(kLogError, "[%s():%d]Fail to parse event subscription file\n");
        RF_EXIT();
        return -1;
    }
    RF_LOG(kLogDebug, "[%s():%d]subscriber File Data Parsed Successfully\n");
    std::string name;
    const Json::Value* found = findSubscription(root, subscriptionId, name);
    if (found == nullptr) {
        RF_EXIT();
        return -1;
    }
    Json::Value subscription = *found;
    subscription["InvalidDestination"] = true;
    root[name] = subscription;
    rfevent::writeSubscriptionStore(root);
    RF_EXIT();
    return 0;
}

int setSubscriptionState(const char* subscriptionId, const char* state) {
    RF_ENTER();
    if (!storeExists()) {
        RF_LOG(kLogDebug, "[%s():%d]Subscription file does not present.");
        RF_EXIT();
        return -1;
    }
    Json::Value root;
    if (!loadStore(root)) {
        RF_LOG(kLogError, "[%s():%d]subscriber File Data parsing failed\n");
        RF_EXIT();
        return -1;
    }
    RF_LOG(kLogDebug, "[%s():%d]subscriber File Data Parsed Successfully\n");
    std::string name;
    const Json::Value* found = findSubscription(root, subscriptionId, name);
    if (found == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Could not find the matching subscription");
        RF_EXIT();
        return -1;
    }
    Json::Value subscription = *found;
    subscription["SubscriptionStateAfterRetry"] = state;
    root[name] = subscription;
    RF_LOG(kLogDebug, "[%s():%d]updated subscription file");
    rfevent::writeSubscriptionStore(root);
    RF_EXIT();
    return 0;
}

void removeFromSubscription(std::vector<DeliveryTarget*>& targets) {
    RF_ENTER();
    for (DeliveryTarget*& target : targets) {
        if (target == nullptr) {
            continue;
        }
        std::free(target->destination);
        std::free(target->subscriptionId);
        std::free(target->retryPolicy);
        // The log shows the low 32 bits of the pointer, as the format has always printed it.
        RF_LOG(kLogDebug, "[%s():%d]Before Freeing the ptr[%u]\n",
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(target->subscription)));
        delete target->subscription;
        std::free(target);
        target = nullptr;
    }
    targets.clear();
    RF_EXIT();
}
