// Metric reports to push subscribers through send_report_to_subscription, against one plain
// libcurl multi pass with the same body to the same destinations; and the same with TLS session
// reuse, against the full handshakes of a plain pass.
#include <curl/curl.h>

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
#include "plain_post.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

namespace rfevent::bench {

namespace {

using testkit::HttpsServer;

const char kDefinition[] = "/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics";

std::string sampleReport() {
    Json::Value report(Json::objectValue);
    report["@odata.id"] = "/redfish/v1/TelemetryService/MetricReports/PowerMetrics";
    report["@odata.type"] = "#MetricReport.v1_4_2.MetricReport";
    report["Id"] = "PowerMetrics";
    report["Name"] = "Power metrics";
    report["ReportSequence"] = "1207";
    report["Timestamp"] = "2026-11-21T10:15:00+00:00";
    report["MetricReportDefinition"]["@odata.id"] = kDefinition;
    Json::Value& values = report["MetricValues"];
    for (int i = 0; i < 8; ++i) {
        Json::Value value(Json::objectValue);
        value["MetricId"] = "SystemInputPower";
        value["MetricValue"] = std::to_string(310 + i);
        value["Timestamp"] = "2026-11-21T10:1" + std::to_string(i) + ":00+00:00";
        value["MetricProperty"] = "/redfish/v1/Chassis/System.Embedded.1/Power#/PowerControl/0";
        values.append(value);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, report);
}

// Subscriptions to the report; `slowServer`, when given, takes the last destination.
Json::Value reportStore(const HttpsServer& server, int destinations,
                        const HttpsServer* slowServer = nullptr) {
    Json::Value store(Json::objectValue);
    for (int i = 0; i < destinations; ++i) {
        const bool slow = slowServer != nullptr && i == destinations - 1;
        const std::string path = "/reports/" + std::to_string(i);
        Json::Value subscription(Json::objectValue);
        subscription["Destination"] = slow ? slowServer->url(path) : server.url(path);
        subscription["EventFormatType"] = "MetricReport";
        subscription["SubscriptionType"] = "RedfishEvent";
        subscription["Protocol"] = "Redfish";
        subscription["DeliveryRetryPolicy"] = "RetryForever";
        subscription["MetricReportDefinitions"][0]["@odata.id"] = kDefinition;
        store["r" + std::to_string(1000 + i)] = subscription;
    }
    return store;
}

// The shortest code for the same transfers: one multi pass, libcurl's own wait. Like every
// POST of the plug-in it presents the client certificate; with verify, the destinations are
// checked against the CA bundle.
void plainMultiPass(const std::vector<std::string>& urls, const std::string& body,
                    bool verify = false) {
    CURLM* multi = curl_multi_init();
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    headers = curl_slist_append(headers, "Content-Type: application/json");
    std::vector<CURL*> handles;
    for (const std::string& url : urls) {
        CURL* curl = plainPostHandle(url, body, headers);
        curl_easy_setopt(curl, CURLOPT_SSLCERT, fixedPath(FixedPath::ClientCertificate));
        curl_easy_setopt(curl, CURLOPT_SSLKEY, fixedPath(FixedPath::ClientKey));
        if (verify) {
            curl_easy_setopt(curl, CURLOPT_CAINFO, fixedPath(FixedPath::ServerCaBundle));
        } else {
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        }
        curl_multi_add_handle(multi, curl);
        handles.push_back(curl);
    }
    int running = 1;
    while (running != 0) {
        curl_multi_perform(multi, &running);
        if (running != 0) {
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg == CURLMSG_DONE && message->data.result != CURLE_OK) {
            throw std::runtime_error("floor multi pass: a transfer failed");
        }
    }
    for (CURL* curl : handles) {
        curl_multi_remove_handle(multi, curl);
        curl_easy_cleanup(curl);
    }
    curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
}

std::size_t resumedCount(const HttpsServer& server) {
    std::size_t resumed = 0;
    for (const testkit::RecordedRequest& request : server.requests()) {
        resumed += request.sessionResumed ? 1 : 0;
    }
    return resumed;
}

// Sends the report once and checks that every destination got it.
void deliverOnce(const std::string& report, HttpsServer& server, std::size_t expected) {
    server.clear();
    if (send_report_to_subscription(report.c_str()) != 0 || server.requestCount() != expected) {
        throw std::runtime_error("report case: the destinations got " +
                                 std::to_string(server.requestCount()) + " of " +
                                 std::to_string(expected) + " reports");
    }
}

void thirtyDestinations(const Context& context, Table& table, HttpsServer& server,
                        const std::string& report) {
    testkit::writeSubscriptionStore(reportStore(server, 30));
    deliverOnce(report, server, 30);
    std::vector<std::string> urls;
    for (const testkit::RecordedRequest& request : server.requests()) {
        urls.push_back(server.url(request.target));
    }
    Comparison result = compareAlternating([&] { deliverOnce(report, server, 30); },
                                           [&] {
                                               server.clear();
                                               plainMultiPass(urls, report);
                                           },
                                           context.schedule(9, 3));
    table.add({"metric report to 30 destinations, one parallel pass", result.plugin, result.floor,
               Unit::Seconds, true, kProtocolBound});
}

// The destinations allow resumption: the pass resumes the sessions the previous pass left.
// Two floors in the same rounds: the plain pass, full handshakes; and the best client's pass,
// which resumes too and keeps the credentials in memory. Certificate checking is on and every
// side presents the client certificate. All 30 destinations are one server, so transfers of one
// pass that start before the first resumed handshake ends may not find a session yet.
void reuseThirty(const Context& context, Table& table, const std::string& report) {
    testkit::writeDeliveryAttributes(3, 5, "No");
    HttpsServer server(context.pki);
    testkit::writeSubscriptionStore(reportStore(server, 30));
    deliverOnce(report, server, 30);
    std::vector<std::string> urls;
    for (const testkit::RecordedRequest& request : server.requests()) {
        urls.push_back(server.url(request.target));
    }
    deliverOnce(report, server, 30);
    const std::size_t resumed = resumedCount(server);
    if (resumed == 0) {
        throw std::runtime_error("report reuse case: the pass resumed no session");
    }
    const BestClient best;
    CurlList headers;
    appendLine(headers, "Expect:");
    appendLine(headers, "Content-Type: application/json");
    auto bestPass = [&] {
        server.clear();
        best.postParallel(urls, report, headers.get());
    };
    bestPass();
    bestPass();
    std::fprintf(stderr,
                 "  (of 30 transfers of a pass, %zu resumed a session; of the best "
                 "client's, %zu)\n",
                 resumed, resumedCount(server));
    const std::vector<Costs> result = compareCostsWithEach([&] { deliverOnce(report, server, 30); },
                                                           {[&] {
                                                                server.clear();
                                                                plainMultiPass(urls, report, true);
                                                            },
                                                            bestPass},
                                                           context.schedule(9, 3));
    addReuseRows(table, "metric report to 30 destinations, session reuse", result[0], result[1]);
    testkit::writeDeliveryAttributes(3, 5, "Yes");
}

void slowDestination(const Context& context, Table& table, HttpsServer& server,
                     const std::string& report) {
    testkit::HttpsServerOptions options;
    options.requireClientCert = false;
    options.resumption = false;
    options.delayMs = 1000;
    HttpsServer slow(context.pki, options);
    const Json::Value store = reportStore(server, 30, &slow);
    testkit::writeSubscriptionStore(store);
    std::vector<std::string> urls;
    for (const std::string& id : store.getMemberNames()) {
        urls.push_back(store[id]["Destination"].asString());
    }
    auto check = [&] {
        if (server.requestCount() != 29 || slow.requestCount() != 1) {
            throw std::runtime_error("slow report case: a destination missed the report");
        }
    };
    auto clear = [&] {
        server.clear();
        slow.clear();
    };
    const double seconds = medianSeconds(
        [&] {
            clear();
            send_report_to_subscription(report.c_str());
            check();
        },
        context.schedule(3, 1));
    const double plain = medianSeconds(
        [&] {
            clear();
            plainMultiPass(urls, report);
            check();
        },
        context.schedule(3, 1));
    // Against the least any pass can take (the slow answer), and against the plain pass to the
    // same destinations, which waits for the same answer: the bound holds the second.
    table.add({"metric report to 30, one answering after 1 s (pass vs 1 s)", seconds, 1.0,
               Unit::Seconds, true, 0});
    table.add({"metric report to 30, one answering after 1 s (pass vs plain pass)", seconds, plain,
               Unit::Seconds, true, kProtocolBound});
}

void manyDestinations(const Context& context, Table& table, HttpsServer& server,
                      const std::string& report, int destinations) {
    const std::string storePath =
        testkit::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json");
    testkit::writeSubscriptionStore(reportStore(server, destinations));
    const std::string many = testkit::readFile(storePath);
    testkit::writeSubscriptionStore(reportStore(server, 30));
    const std::string thirty = testkit::readFile(storePath);
    // Each side puts its own store in place before its pass: the rewrite weighs on both alike.
    Comparison result = compareAlternating(
        [&] {
            testkit::writeFile(storePath, many);
            deliverOnce(report, server, static_cast<std::size_t>(destinations));
        },
        [&] {
            testkit::writeFile(storePath, thirty);
            deliverOnce(report, server, 30);
        },
        // Eleven rounds: one pass is a single sample of a wall time that shifts with the
        // machine, and the per-destination ratio of two such medians needs more of them.
        context.schedule(11, 1));
    table.add({"metric report to " + std::to_string(destinations) +
                   " destinations, per destination vs 30",
               result.plugin / destinations, result.floor / 30, Unit::Seconds, true,
               kProtocolBound});
}

} // namespace

void runReportCases(const Context& context, Table& table) {
    testkit::writeDeliveryAttributes(3, 5, "Yes");
    // The destinations refuse resumption: both sides make full handshakes, and the ratios are
    // the plug-in's own cost around them.
    testkit::HttpsServerOptions options;
    options.requireClientCert = false;
    options.resumption = false;
    HttpsServer server(context.pki, options);
    const std::string report = sampleReport();
    thirtyDestinations(context, table, server, report);
    slowDestination(context, table, server, report);
    manyDestinations(context, table, server, report, 100);
    manyDestinations(context, table, server, report, 300);
    reuseThirty(context, table, report);
    testkit::removeFile(
        testkit::rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"));
}

} // namespace rfevent::bench
