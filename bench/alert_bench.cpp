// Alerts to N push subscribers through sendRedFishEventAlert, against N plain libcurl POSTs
// with the same options and bodies to the same mutual-TLS destination.
#include <curl/curl.h>

#include <string>
#include <vector>

#include "base/paths.h"
#include "cases.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "plain_post.h"

namespace rfevent::bench {

namespace {

using testkit::HttpsServer;

Json::Value alertStore(const HttpsServer& server, int subscribers) {
    Json::Value store(Json::objectValue);
    for (int i = 0; i < subscribers; ++i) {
        Json::Value subscription(Json::objectValue);
        subscription["Destination"] = server.url("/events/" + std::to_string(i));
        subscription["EventTypes"] = Json::Value(Json::arrayValue);
        subscription["EventTypes"].append("Alert");
        subscription["Context"] = "bench-" + std::to_string(i);
        subscription["Protocol"] = "Redfish";
        subscription["SubscriptionType"] = "RedfishEvent";
        subscription["DeliveryRetryPolicy"] = "RetryForever";
        store[std::to_string(1000 + i)] = subscription;
    }
    return store;
}

// The shortest code that makes the same request: the options the plug-in sets, in one go.
void plainPost(const std::string& url, const std::string& body, bool verify) {
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    CURL* curl = plainPostHandle(url, body, headers);
    curl_easy_setopt(curl, CURLOPT_SSLCERT, fixedPath(FixedPath::ClientCertificate));
    curl_easy_setopt(curl, CURLOPT_SSLKEY, fixedPath(FixedPath::ClientKey));
    if (verify) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, fixedPath(FixedPath::ServerCaBundle));
        curl_easy_setopt(curl, CURLOPT_CERTINFO, 1L);
    } else {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (curl_easy_perform(curl) != CURLE_OK) {
        throw std::runtime_error("floor POST to " + url + " failed");
    }
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
}

void runOne(const Context& context, Table& table, HttpsServer& server, int subscribers,
            bool verify) {
    testkit::writeDeliveryAttributes(3, 5, verify ? "No" : "Yes");
    testkit::writeSubscriptionStore(alertStore(server, subscribers));
    DataEventHeader* alert = sampleAlert();
    int eventContext = 0;

    // One alert first, for the bodies the floor sends: the same bytes to the same paths.
    server.clear();
    sendRedFishEventAlert(alert, &eventContext);
    std::vector<testkit::RecordedRequest> requests = server.requests();
    if (requests.size() != static_cast<std::size_t>(subscribers)) {
        throw std::runtime_error("alert case: the destination got " +
                                 std::to_string(requests.size()) + " requests");
    }
    std::vector<std::pair<std::string, std::string>> posts;
    posts.reserve(requests.size());
    for (const testkit::RecordedRequest& request : requests) {
        posts.emplace_back(server.url(request.target), request.body);
    }

    Comparison result = compareAlternating(
        [&] {
            server.clear();
            sendRedFishEventAlert(alert, &eventContext);
        },
        [&] {
            server.clear();
            for (const auto& post : posts) {
                plainPost(post.first, post.second, verify);
            }
        },
        context.schedule(subscribers == 1 ? 25 : 7, subscribers == 1 ? 20 : 3));
    std::string name = "alert to " + std::to_string(subscribers) + " push subscriber" +
                       (subscribers == 1 ? "" : "s") + ", certificate checking " +
                       (verify ? "on" : "off");
    table.add({name, result.plugin, result.floor, Unit::Seconds});
}

} // namespace

void runAlertCases(const Context& context, Table& table) {
    testkit::HttpsServerOptions options;
    options.requireClientCert = true;
    HttpsServer server(context.pki, options);
    for (bool verify : {false, true}) {
        for (int subscribers : {1, 10, 30}) {
            runOne(context, table, server, subscribers, verify);
        }
    }
    testkit::removeFile(
        testkit::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"));
}

} // namespace rfevent::bench
