// An alert with a large subscription store: 5,000 subscriptions, of which 10 take alerts,
// against the best client that parses the same file once and makes the same 10 POSTs. The
// plug-in reads and parses the store on every alert, and walks all of it.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/curl.h"
#include "base/paths.h"
#include "best_client.h"
#include "cases.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"

namespace rfevent::bench {

namespace {

using testkit::HttpsServer;

constexpr int kSubscriptions = 5000;
constexpr int kMatching = 10;

// Every 500th subscription takes alerts; of the others, half take metric reports and half
// other event types, as a busy controller's store might hold.
Json::Value largeStore(const HttpsServer& server) {
    Json::Value store(Json::objectValue);
    for (int i = 0; i < kSubscriptions; ++i) {
        const bool alerts = i % (kSubscriptions / kMatching) == kSubscriptions / kMatching / 2;
        Json::Value subscription(Json::objectValue);
        subscription["Destination"] = server.url("/store/" + std::to_string(i));
        subscription["Context"] = "bench-store-" + std::to_string(i);
        subscription["Protocol"] = "Redfish";
        subscription["SubscriptionType"] = "RedfishEvent";
        subscription["DeliveryRetryPolicy"] = "RetryForever";
        if (alerts) {
            subscription["EventTypes"][0] = "Alert";
        } else if (i % 2 == 0) {
            subscription["EventFormatType"] = "MetricReport";
            subscription["MetricReportDefinitions"][0]["@odata.id"] =
                "/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics";
        } else {
            subscription["EventTypes"][0] = "ResourceAdded";
            subscription["EventTypes"][1] = "StatusChange";
        }
        store[std::to_string(20000 + i)] = subscription;
    }
    return store;
}

// The best client's whole alert: the store read and parsed once, then its POSTs.
void bestAlert(const BestClient& best, const std::string& storePath,
               const std::vector<std::pair<std::string, std::string>>& posts, curl_slist* headers) {
    const std::string text = testkit::readFile(storePath);
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value store;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &store, &errors) ||
        store.size() != kSubscriptions) {
        throw std::runtime_error("store case: the best client cannot parse the store");
    }
    best.postEach(posts, headers);
}

} // namespace

void runStoreCases(const Context& context, Table& table) {
    testkit::writeDeliveryAttributes(3, 5, "No");
    HttpsServer server(context.pki);
    // Written without indentation: 1.4 MB.
    const std::string storePath = fixedPath(FixedPath::SubscriptionStore);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    testkit::writeFile(storePath, Json::writeString(writer, largeStore(server)));
    std::fprintf(stderr, "  (store of %d subscriptions, %zu bytes)\n", kSubscriptions,
                 testkit::readFile(storePath).size());

    DataEventHeader* alert = sampleAlert();
    int eventContext = 0;
    auto plugin = [&] {
        server.clear();
        sendRedFishEventAlert(alert, &eventContext);
        if (server.requestCount() != kMatching) {
            throw std::runtime_error("store case: the destinations got " +
                                     std::to_string(server.requestCount()) + " alerts");
        }
    };
    plugin();
    std::vector<std::pair<std::string, std::string>> posts;
    for (const testkit::RecordedRequest& request : server.requests()) {
        posts.emplace_back(server.url(request.target), request.body);
    }
    const BestClient best;
    CurlList headers;
    appendLine(headers, "Content-Type: application/json");
    auto floor = [&] {
        server.clear();
        bestAlert(best, storePath, posts, headers.get());
    };
    const Costs result = compareCosts(plugin, floor, context.schedule(9, 3));
    const std::string name = "alert, store of 5,000 subscriptions, 10 match, vs best client";
    table.add({name + ", CPU", result.cpu.plugin, result.cpu.floor, Unit::Seconds, true,
               kStoreSizeBound});
    table.add({name + ", wall", result.wall.plugin, result.wall.floor, Unit::Seconds, true,
               kStoreSizeBound});
    testkit::removeFile(storePath);
}

} // namespace rfevent::bench
