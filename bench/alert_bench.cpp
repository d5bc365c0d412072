// Alerts to N push subscribers through sendRedFishEventAlert, against N plain libcurl POSTs
// with the same options and bodies to the same mutual-TLS destination; and the same with TLS
// session reuse, against the full handshakes of plain POSTs.
#include <curl/curl.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/curl.h"
#include "base/paths.h"
#include "best_client.h"
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

using Posts = std::vector<std::pair<std::string, std::string>>;

// One alert through the plug-in; its requests, checked for number, are what the floor sends:
// the same bytes to the same paths.
Posts alertPosts(HttpsServer& server, int subscribers) {
    int eventContext = 0;
    server.clear();
    sendRedFishEventAlert(sampleAlert(), &eventContext);
    std::vector<testkit::RecordedRequest> requests = server.requests();
    if (requests.size() != static_cast<std::size_t>(subscribers)) {
        throw std::runtime_error("alert case: the destination got " +
                                 std::to_string(requests.size()) + " requests");
    }
    Posts posts;
    posts.reserve(requests.size());
    for (const testkit::RecordedRequest& request : requests) {
        posts.emplace_back(server.url(request.target), request.body);
    }
    return posts;
}

std::string caseName(int subscribers) {
    return "alert to " + std::to_string(subscribers) + " push subscriber" +
           (subscribers == 1 ? "" : "s");
}

// The destination refuses resumption: both sides make full handshakes, and the ratio is the
// plug-in's own cost around them.
void runOne(const Context& context, Table& table, HttpsServer& server, int subscribers,
            bool verify) {
    testkit::writeDeliveryAttributes(3, 5, verify ? "No" : "Yes");
    testkit::writeSubscriptionStore(alertStore(server, subscribers));
    DataEventHeader* alert = sampleAlert();
    int eventContext = 0;
    const Posts posts = alertPosts(server, subscribers);

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
    std::string name = caseName(subscribers) + ", certificate checking " + (verify ? "on" : "off");
    table.add({name, result.plugin, result.floor, Unit::Seconds, true, kProtocolBound});
}

// Throws unless the requests since the last clear resumed their sessions (or did not).
void expectResumption(const HttpsServer& server, bool resumed, const char* side) {
    for (const testkit::RecordedRequest& request : server.requests()) {
        if (request.sessionResumed != resumed) {
            throw std::runtime_error(std::string("session reuse case: ") + side +
                                     (resumed ? " made a full handshake" : " resumed a session"));
        }
    }
}

// The destination allows resumption, as ordinary servers do: the plug-in resumes its sessions.
// It is measured against two floors in the same rounds: the plain POSTs, each a full handshake
// (what every POST cost before the session cache), and the best client, which resumes too and
// keeps the credentials in memory (what the plug-in itself still costs around it). Certificate
// checking is on, and every side presents the client certificate.
void runReuse(const Context& context, Table& table, HttpsServer& server, int subscribers) {
    testkit::writeDeliveryAttributes(3, 5, "No");
    testkit::writeSubscriptionStore(alertStore(server, subscribers));
    DataEventHeader* alert = sampleAlert();
    int eventContext = 0;
    const Posts posts = alertPosts(server, subscribers);
    const BestClient best;
    CurlList headers;
    appendLine(headers, "Content-Type: application/json");
    auto plugin = [&] {
        server.clear();
        sendRedFishEventAlert(alert, &eventContext);
    };
    auto plain = [&] {
        server.clear();
        for (const auto& post : posts) {
            plainPost(post.first, post.second, true);
        }
    };
    auto bestFloor = [&] {
        server.clear();
        best.postEach(posts, headers.get());
    };
    plugin();
    expectResumption(server, true, "the plug-in");
    plain();
    expectResumption(server, false, "the floor");
    bestFloor();
    bestFloor();
    expectResumption(server, true, "the best client");

    const std::vector<Costs> result = compareCostsWithEach(
        plugin, {plain, bestFloor},
        context.schedule(subscribers == 1 ? 25 : 7, subscribers == 1 ? 20 : 3));
    const std::string name = caseName(subscribers) + ", session reuse";
    addReuseRows(table, name, result[0], result[1]);
}

} // namespace

void runAlertCases(const Context& context, Table& table) {
    testkit::HttpsServerOptions options;
    options.requireClientCert = true;
    options.resumption = false;
    HttpsServer server(context.pki, options);
    for (bool verify : {false, true}) {
        for (int subscribers : {1, 10, 30}) {
            runOne(context, table, server, subscribers, verify);
        }
    }
    options.resumption = true;
    HttpsServer resuming(context.pki, options);
    for (int subscribers : {1, 30}) {
        runReuse(context, table, resuming, subscribers);
    }
    testkit::removeFile(
        testkit::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"));
}

} // namespace rfevent::bench
