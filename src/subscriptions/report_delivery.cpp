#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report.h"
#include "delivery/parallel_post.h"
#include "subscriptions/delivery_failure.h"
#include "subscriptions/store.h"
#include "subscriptions/subscription.h"

namespace rfevent {

namespace {

const char kMetricReport[] = "MetricReport";

const rfevent::JsonFileTexts kReportStore = {kLogDebug, "Subscription file does not exist\n",
                                             "Subscription file exists\n",
                                             "Fail to parse event subscription file\n", nullptr};

// The match is logged under the name of the function the subscriptions' lists have always been
// matched by.
constexpr SourceSpot kMatchSpot = {"isReportMatchTheSubscription", __LINE__};

// isReportMatchTheSubscription without the copy of the list.
bool namesReport(const Json::Value& list, const std::string& definitionUri) {
    for (const Json::Value& element : list) {
        if (!element.isObject() || !element.isMember("@odata.id")) {
            continue;
        }
        const Json::Value& id = element["@odata.id"];
        if (id.isString() && id.asString() == definitionUri) {
            RF_LOG_AT(kMatchSpot, kLogInfo, "[%s():%d]Report match the subscription data\n");
            return true;
        }
    }
    return false;
}

bool hasElements(const Json::Value& subscription, const char* key) {
    return subscription.isMember(key) && !subscription[key].isNull() &&
           subscription[key].size() > 0; // NOLINT(readability-container-size-empty)
}

// Whether the subscription wants this report; logs as it decides.
bool isSelected(const std::string& id, const Json::Value& subscription,
                const ParsedReport& report) {
    if (subscription["SubscriptionType"].asString() == "Syslog") {
        return false;
    }
    if (subscriptionState(subscription) == SubscriptionState::Disabled) {
        RF_LOG(kLogDebug, "[%s():%d]Disabled subscription found, skipping...");
        return false;
    }
    if (!subscription.isMember("EventFormatType") ||
        subscription["EventFormatType"].asString() != kMetricReport) {
        RF_LOG(kLogDebug, "[%s():%d]Could not find [%s] in [%s] subscription", kMetricReport,
               id.c_str());
        return false;
    }
    RF_LOG(kLogDebug, "[%s():%d]Found [%s] in [%s] subscription", kMetricReport, id.c_str());
    const bool invalidDestination = subscription.isMember("InvalidDestination");
    if (hasElements(subscription, "MetricReportDefinitions") && !invalidDestination) {
        return namesReport(subscription["MetricReportDefinitions"], report.definitionUri());
    }
    if (hasElements(subscription, "OriginResources") && !invalidDestination) {
        return namesReport(subscription["OriginResources"], report.definitionUri());
    }
    RF_LOG(kLogDebug,
           "[%s():%d]Could not find [%s] in [%s] subscription. Obtaining the Destination",
           "OriginResources", id.c_str());
    if (!subscription.isMember("Destination") || invalidDestination) {
        RF_LOG(kLogDebug, "[%s():%d]Could not find valid [%s] in [%s] subscription.", "Destination",
               id.c_str());
        return false;
    }
    RF_LOG(kLogDebug, "[%s():%d]Found [%s] in [%s] subscription.", "Destination", id.c_str());
    return true;
}

DeliveryTarget makeTarget(const std::string& id, const Json::Value& subscription) {
    DeliveryTarget target;
    target.destination = subscription["Destination"].asString();
    target.subscriptionId = id;
    target.retryPolicy = subscription["DeliveryRetryPolicy"].asString();
    target.subscription = subscription;
    return target;
}

// One parallel pass serves at most 30 destinations: larger sets go in groups, and the
// failures of each group are queued before the next group is sent. The targets are released
// together at the end.
void sendInGroups(std::vector<DeliveryTarget>& targets, const char* report) {
    std::vector<DeliveryTarget> sent;
    sent.reserve(targets.size());
    std::size_t start = 0;
    do {
        const std::size_t end =
            std::min(targets.size(), start + static_cast<std::size_t>(kMaxParallelDestinations));
        std::vector<DeliveryTarget> group(std::make_move_iterator(targets.begin() + start),
                                          std::make_move_iterator(targets.begin() + end));
        sendMultiperform(report, group);
        queueFailedTargets(group, report);
        std::move(group.begin(), group.end(), std::back_inserter(sent));
        start = end;
    } while (start < targets.size());
    targets = std::move(sent);
}

} // namespace

// Selects the targets of the report, in the store's member order.
void selectTargets(const Json::Value& store, const ParsedReport& report,
                   std::vector<DeliveryTarget>& targets) {
    for (auto it = store.begin(); it != store.end(); ++it) {
        const std::string id = it.name();
        const Json::Value& subscription = *it;
        if (!isUsableSubscription(RF_HERE, id, subscription)) {
            continue;
        }
        if (!isSelected(id, subscription, report)) {
            continue;
        }
        if (!subscription.isMember("Destination")) {
            RF_LOG(kLogDebug, "[%s():%d]Could not find valid [%s] in [%s] subscription.",
                   "Destination", id.c_str());
            continue;
        }
        targets.push_back(makeTarget(id, subscription));
    }
}

int send_report_to_subscription(const char* report) {
    return send_report_to_subscription(ParsedReport(report)) ? 0 : -1;
}

bool send_report_to_subscription(const ParsedReport& parsed) {
    RF_ENTER();
    const char* report = parsed.text();
    if (report == nullptr) {
        RF_LOG(kLogError, "[%s():%d]Invalid report\n");
        RF_EXIT();
        return false;
    }
    Json::Value store;
    if (!rfevent::loadJsonObject(RF_HERE, rfevent::fixedPath(rfevent::FixedPath::SubscriptionStore),
                                 kReportStore, store)) {
        RF_EXIT();
        return false;
    }
    std::vector<DeliveryTarget> targets;
    try {
        selectTargets(store, parsed, targets);
        sendInGroups(targets, report);
    } catch (...) {
        // A report of the wrong shape raises the JSON library's type error, which the caller's
        // guard takes; the records gathered so far are released as on every other ending.
        if (!targets.empty()) {
            removeFromSubscription(targets);
        }
        throw;
    }
    removeFromSubscription(targets);
    RF_EXIT();
    return true;
}

bool isReportMatchTheSubscription(Json::Value list, const std::string& definitionUri) {
    return namesReport(list, definitionUri);
}

} // namespace rfevent
