// The plug-in against a real nginx of the kind operators put in front of their collectors:
// client certificates demanded and checked against the test CA, one TLS version per variant,
// bodies proxied to a recording backend, and error answers given by nginx itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "delivery/status_internal.h"
#include "events/alert_record.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/json_schema.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "interop/nginx_server.h"
#include "rfevent/redfish_event.h"
#include "subscriptions/invalid_dest_internal.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

constexpr int kAttempts = 2;
// Also the time-out of every transfer, so it is generous for a large body on a busy machine.
constexpr int kIntervalSeconds = 30;
const char kHostName[] = "bmc-host";
const char kStorePath[] = "/var/lib/lumenrest/redfish_subscriptions/subscriptions.json";
const char kRaidUri[] =
    "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers/RAID.Integrated.1-1";
const char kDefinition[] = "/redfish/v1/TelemetryService/MetricReportDefinitions/CPUUsage";
const char kClientSubject[] = "CN=rfevent-client,O=rfevent tests";
const char kClientIssuer[] = "CN=rfevent test CA,O=rfevent tests";

struct Variant {
    const char* protocol;  // nginx's ssl_protocols, and its $ssl_protocol when connected
    const char* name;      // test-name suffix
    long refusedClientTls; // CURLOPT_SSLVERSION of a client this variant must turn away
};

void PrintTo(const Variant& variant, std::ostream* out) {
    *out << variant.protocol;
}

const Variant kVariants[] = {
    {"TLSv1.3", "Tls13", CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2},
    {"TLSv1.2", "Tls12", CURL_SSLVERSION_TLSv1_3},
};

// The delivery status of subscription id after nginx answered it with code: refused, counted,
// and said once at level 2.
void expectRefusedBy(const tk::LogCapture& log, const std::string& id, int code, int times) {
    writeDeliveryStatusNow();
    const Json::Value status = tk::readDeliveryStatus();
    EXPECT_EQ(status[id]["LastOutcome"].asString(), "refused") << status;
    EXPECT_EQ(status[id]["LastHttpStatus"].asInt(), code) << status;
    EXPECT_EQ(status[id]["Refused"].asInt(), times) << status;
    EXPECT_EQ(log.count(2, "of subscription " + id + " refused the delivery: HTTP " +
                               std::to_string(code) + "; counted as delivered"),
              1)
        << log.dump();
}

std::string smallReport() {
    return std::string("{\"@odata.type\":\"#MetricReport.v1_4_2.MetricReport\",\"Id\":\"CPUUsage\","
                       "\"MetricReportDefinition\":{\"@odata.id\":\"") +
           kDefinition +
           "\"},\"MetricValues\":[{\"MetricId\":\"CPUUsage\",\"MetricValue\":\"7\"}]}";
}

// A valid report of about 1.5 MiB whose values hold escapes and multi-byte UTF-8, so that any
// re-encoding or truncation on the way shows up as a difference.
std::string largeReport() {
    std::string report = "{\"@odata.type\":\"#MetricReport.v1_4_2.MetricReport\",\"Id\":"
                         "\"CPUUsage\",\"MetricReportDefinition\":{\"@odata.id\":\"" +
                         std::string(kDefinition) + "\"},\"MetricValues\":[";
    for (int i = 0; report.size() < 1536 * 1024; ++i) {
        if (i != 0) {
            report += ',';
        }
        report += "{\"MetricId\":\"CPUUsage\",\"MetricValue\":\"" + std::to_string(i % 101) +
                  "\",\"Timestamp\":\"2024-05-01T10:00:00+00:00\",\"MetricProperty\":"
                  "\"/redfish/v1/Systems/System.Embedded.1/Processors/CPU." +
                  std::to_string(i % 8) +
                  "#/Usage\",\"Oem\":{\"Note\":\"caf\xc3\xa9 \\\"q\\\" \\\\ \\u00e9 "
                  "\xe6\x97\xa5\xe6\x9c\xac\\t" +
                  std::to_string(i) + "\"}}";
    }
    report += "]}";
    return report;
}

Json::Value alertSubscription(const std::string& destination) {
    Json::Value subscription(Json::objectValue);
    subscription["Destination"] = destination;
    subscription["EventTypes"].append("Alert");
    return subscription;
}

Json::Value reportSubscription(const std::string& destination) {
    Json::Value subscription(Json::objectValue);
    subscription["EventFormatType"] = "MetricReport";
    subscription["Destination"] = destination;
    return subscription;
}

// The document the plug-in composes for the alert and subscription id; the timestamp is the
// one received.
std::string expectedAlertDocument(const tk::AlertFields& fields, const std::string& id,
                                  const Json::Value& context, const std::string& timestamp) {
    Json::Value d(Json::objectValue);
    d["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    d["@odata.type"] = "#Event.v1_5_0.Event";
    d["@odata.id"] = "/redfish/v1/EventService/Events/" + id;
    d["Id"] = id;
    d["Name"] = "Event Array";
    d["Context"] = context;
    d["Events"].append(tk::expectedEvent(fields, timestamp, kRaidUri, &context));
    d["Oem"]["Orva"] = tk::expectedOrva(kHostName);
    return tk::compactJson(d);
}

// Equality of two large texts, reported as sizes and the first differing offset instead of
// both texts.
::testing::AssertionResult sameBytes(const std::string& actual, const std::string& expected) {
    if (actual == expected) {
        return ::testing::AssertionSuccess();
    }
    std::size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) {
        ++at;
    }
    return ::testing::AssertionFailure()
           << "received " << actual.size() << " bytes, sent " << expected.size()
           << " bytes, first difference at offset " << at;
}

class NginxInteropTest : public ::testing::TestWithParam<Variant> {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        pki_ = tk::generateTestPki(tk::rooted("/pki"));
        tk::installClientCredentials(pki_, tk::sandboxRoot(), true);
        tk::writeDeliveryAttributes(kAttempts, kIntervalSeconds, "No", kHostName);
        fingerprint_ = tk::certificateSha1(pki_.clientCert);
        tk::HttpsServerOptions options;
        options.requireClientCert = false; // nginx checked the certificate already
        backend_ = std::make_unique<tk::HttpsServer>(pki_, options);
        nginx_ = std::make_unique<tk::NginxServer>(pki_, tk::rooted("/nginx"), GetParam().protocol,
                                                   backend_->port());
        queuedBefore_ = queuedRecordCount();
    }

    void TearDown() override {
        if (nginx_) {
            if (HasFailure()) {
                std::cout << "nginx error log:\n" << nginx_->errorLog() << std::endl;
            }
            nginx_->stop();
        }
        if (backend_) {
            backend_->stop();
        }
    }

    std::string url(const std::string& path) const { return nginx_->url(path); }

    void writeStore(const Json::Value& store) {
        tk::writeSubscriptionStore(store);
        storeText_ = tk::readFile(tk::rooted(kStorePath));
    }

    // The store file is exactly as written: no subscription was suspended or removed.
    void expectStoreUntouched() const {
        EXPECT_EQ(tk::readFile(tk::rooted(kStorePath)), storeText_);
    }

    static void sendAlert(const tk::AlertFields& fields) {
        tk::AlertRecord record(fields);
        int context = 0;
        sendRedFishEventAlert(record.header(), &context);
    }

    // What nginx told the backend about the TLS connection the request came on.
    void expectVerifiedByNginx(const tk::RecordedRequest& request) const {
        EXPECT_EQ(request.header("X-Client-Verify"), "SUCCESS");
        EXPECT_EQ(request.header("X-Client-Subject"), kClientSubject);
        EXPECT_EQ(request.header("X-Client-Issuer"), kClientIssuer);
        EXPECT_EQ(request.header("X-Client-Fingerprint"), fingerprint_);
        EXPECT_EQ(request.header("X-Tls-Protocol"), GetParam().protocol);
        EXPECT_EQ(request.header("Content-Type"), "application/json");
    }

    // The same facts from nginx's access log, for requests nginx answered itself.
    void expectVerifiedEntry(const Json::Value& entry, const std::string& uri,
                             const std::string& status) const {
        EXPECT_EQ(entry["uri"].asString(), uri);
        EXPECT_EQ(entry["method"].asString(), "POST");
        EXPECT_EQ(entry["status"].asString(), status) << uri;
        EXPECT_EQ(entry["verify"].asString(), "SUCCESS") << uri;
        EXPECT_EQ(entry["subject"].asString(), kClientSubject) << uri;
        EXPECT_EQ(entry["fingerprint"].asString(), fingerprint_) << uri;
        EXPECT_EQ(entry["protocol"].asString(), GetParam().protocol) << uri;
    }

    tk::TestPki pki_;
    std::string fingerprint_;
    std::unique_ptr<tk::HttpsServer> backend_;
    std::unique_ptr<tk::NginxServer> nginx_;
    std::string storeText_;
    std::size_t queuedBefore_ = 0;
};

TEST_P(NginxInteropTest, AlertArrivesWithTheClientCertificateByteForByte) {
    Json::Value store(Json::objectValue);
    store["1"] = alertSubscription(url("/collector/alerts"));
    store["1"]["Context"] = "ctx-1";
    store["1"]["HttpHeaders"][0]["X-Token"] = "t0k";
    writeStore(store);
    tk::LogCapture log;
    sendAlert(tk::fullAlert());

    ASSERT_TRUE(backend_->waitForRequests(1, tk::kNginxDeadline));
    const tk::RecordedRequest request = backend_->requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/collector/alerts");
    const std::string stamp = tk::parseJson(request.body)["Events"][0]["EventTimestamp"].asString();
    EXPECT_EQ(request.body,
              expectedAlertDocument(tk::fullAlert(), "1", Json::Value("ctx-1"), stamp));
    EXPECT_EQ(request.header("X-Token"), "t0k");
    expectVerifiedByNginx(request);
    EXPECT_EQ(log.count(4, "curl_easy_perform success"), 1) << log.dump();
    EXPECT_TRUE(tk::eventLogEntries().empty());
    expectStoreUntouched();

    const auto entries = nginx_->settledAccessLog();
    ASSERT_EQ(entries.size(), 1u);
    expectVerifiedEntry(entries[0], "/collector/alerts", "200");
    EXPECT_EQ(entries[0]["contentLength"].asString(), std::to_string(request.body.size()));
    EXPECT_EQ(backend_->requestCount(), 1u);
}

TEST_P(NginxInteropTest, SmallMetricReportArrivesByteForByte) {
    const std::string report = smallReport();
    Json::Value store(Json::objectValue);
    store["m1"] = reportSubscription(url("/collector/reports/m1"));
    store["m1"]["HttpHeaders"][0]["X-Tenant"] = "blue";
    writeStore(store);
    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(report.c_str()), 0);

    ASSERT_TRUE(backend_->waitForRequests(1, tk::kNginxDeadline));
    const tk::RecordedRequest request = backend_->requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/collector/reports/m1");
    EXPECT_EQ(request.body, report);
    EXPECT_EQ(request.header("X-Tenant"), "blue");
    expectVerifiedByNginx(request);
    EXPECT_EQ(log.count(2, " sent message status: 0"), 1) << log.dump();
    EXPECT_FALSE(log.containsAny("update retry count"));
    EXPECT_EQ(queuedRecordCount(), queuedBefore_);
    expectStoreUntouched();
    EXPECT_EQ(nginx_->settledAccessLog().size(), 1u);
}

TEST_P(NginxInteropTest, LargeMetricReportArrivesByteForByteAtEveryCollector) {
    const std::string report = largeReport();
    ASSERT_GT(report.size(), 1024u * 1024u);
    Json::Value store(Json::objectValue);
    store["a"] = reportSubscription(url("/collector/reports/a"));
    store["b"] = reportSubscription(url("/collector/reports/b"));
    writeStore(store);
    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(report.c_str()), 0);

    ASSERT_TRUE(backend_->waitForRequests(2, tk::kNginxDeadline));
    const auto requests = backend_->requests();
    ASSERT_EQ(requests.size(), 2u);
    std::vector<std::string> targets;
    for (const tk::RecordedRequest& request : requests) {
        targets.push_back(request.target);
        EXPECT_TRUE(sameBytes(request.body, report)) << request.target;
        expectVerifiedByNginx(request);
    }
    std::sort(targets.begin(), targets.end());
    EXPECT_EQ(targets, (std::vector<std::string>{"/collector/reports/a", "/collector/reports/b"}));
    EXPECT_EQ(log.count(2, " sent message status: 0"), 2) << log.dump();
    EXPECT_FALSE(log.containsAny("update retry count"));
    EXPECT_EQ(queuedRecordCount(), queuedBefore_);
    expectStoreUntouched();
    for (const Json::Value& entry : nginx_->settledAccessLog()) {
        EXPECT_EQ(entry["status"].asString(), "200");
        EXPECT_EQ(entry["contentLength"].asString(), std::to_string(report.size()));
    }
}

TEST_P(NginxInteropTest, AlertAnswered401Or500CountsAsDelivered) {
    Json::Value store(Json::objectValue);
    store["401"] = alertSubscription(url("/status/401"));
    store["401"]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    store["500"] = alertSubscription(url("/status/500"));
    store["500"]["DeliveryRetryPolicy"] = "SuspendRetries";
    writeStore(store);
    tk::LogCapture log;
    sendAlert(tk::fullAlert());

    // One attempt each: no retry, no event-log entry, both subscriptions kept as they were.
    EXPECT_EQ(log.count(4, "curl_easy_perform success"), 2) << log.dump();
    EXPECT_FALSE(log.containsAny("curl_easy_perform failed"));
    EXPECT_TRUE(tk::eventLogEntries().empty());
    expectStoreUntouched();
    const auto entries = nginx_->settledAccessLog();
    ASSERT_EQ(entries.size(), 2u);
    expectVerifiedEntry(entries[0], "/status/401", "401");
    expectVerifiedEntry(entries[1], "/status/500", "500");
    EXPECT_EQ(backend_->requestCount(), 0u);
    expectRefusedBy(log, "401", 401, 1);
    expectRefusedBy(log, "500", 500, 1);
}

TEST_P(NginxInteropTest, MetricReportAnswered401Or500CountsAsDelivered) {
    Json::Value store(Json::objectValue);
    store["401"] = reportSubscription(url("/status/401"));
    store["401"]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    store["500"] = reportSubscription(url("/status/500"));
    store["500"]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    writeStore(store);
    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(smallReport().c_str()), 0);
    EXPECT_EQ(send_report_to_subscription(largeReport().c_str()), 0);

    // Nothing counted as failed, so nothing queued for a re-send and the store is unchanged.
    EXPECT_EQ(log.count(2, " sent message status: 0"), 4) << log.dump();
    EXPECT_FALSE(log.containsAny("update retry count"));
    EXPECT_EQ(queuedRecordCount(), queuedBefore_);
    expectStoreUntouched();
    const auto entries = nginx_->settledAccessLog();
    ASSERT_EQ(entries.size(), 4u);
    std::vector<std::string> statuses;
    for (const Json::Value& entry : entries) {
        expectVerifiedEntry(entry, entry["uri"].asString(), entry["uri"].asString().substr(8));
        statuses.push_back(entry["status"].asString());
    }
    std::sort(statuses.begin(), statuses.end());
    EXPECT_EQ(statuses, (std::vector<std::string>{"401", "401", "500", "500"}));
    EXPECT_EQ(backend_->requestCount(), 0u);
    expectRefusedBy(log, "401", 401, 2);
    expectRefusedBy(log, "500", 500, 2);
}

// A collector whose body limit is below a report's size answers 413: counted as delivered, as
// before, and now shown in the delivery status and once in the log; the next small report is
// accepted again, which the log says once too.
TEST_P(NginxInteropTest, BodyLimitRefusalShowsInTheDeliveryStatus) {
    Json::Value store(Json::objectValue);
    store["small"] = reportSubscription(url("/limited"));
    writeStore(store);
    tk::LogCapture log;
    EXPECT_EQ(send_report_to_subscription(smallReport().c_str()), 0);
    EXPECT_EQ(send_report_to_subscription(largeReport().c_str()), 0);
    EXPECT_EQ(send_report_to_subscription(largeReport().c_str()), 0);
    EXPECT_FALSE(log.containsAny("update retry count"));
    EXPECT_EQ(queuedRecordCount(), queuedBefore_);
    expectRefusedBy(log, "small", 413, 2);
    EXPECT_EQ(send_report_to_subscription(smallReport().c_str()), 0);
    writeDeliveryStatusNow();
    const Json::Value status = tk::readDeliveryStatus();
    EXPECT_EQ(status["small"]["LastOutcome"].asString(), "delivered") << status;
    EXPECT_EQ(status["small"]["Delivered"].asInt(), 2) << status;
    EXPECT_EQ(status["small"]["ConsecutiveProblems"].asInt(), 0) << status;
    EXPECT_EQ(log.count(2, "of subscription small accepts deliveries again"), 1) << log.dump();
    std::vector<std::string> statuses;
    for (const Json::Value& entry : nginx_->settledAccessLog()) {
        statuses.push_back(entry["status"].asString());
    }
    EXPECT_EQ(statuses, (std::vector<std::string>{"204", "413", "413", "204"}));
}

// A certificate nginx does not accept (here one made for a server, not a client) is refused
// with an HTTP answer, not at the handshake: the plug-in counts that answer as delivered.
TEST_P(NginxInteropTest, CertificateNginxRefusesIsAnswered400AndCountsAsDelivered) {
    tk::writeFile(tk::rooted("/etc/certs/CA/certs/host.crt"), tk::readFile(pki_.serverCert));
    tk::writeFile(tk::rooted("/flash/data0/cv/private/host.key"), tk::readFile(pki_.serverKey));
    Json::Value store(Json::objectValue);
    store["1"] = alertSubscription(url("/collector/refused"));
    store["1"]["DeliveryRetryPolicy"] = "TerminateAfterRetries";
    writeStore(store);
    tk::LogCapture log;
    sendAlert(tk::fullAlert());

    EXPECT_EQ(log.count(4, "curl_easy_perform success"), 1) << log.dump();
    EXPECT_TRUE(tk::eventLogEntries().empty());
    expectStoreUntouched();
    const auto entries = nginx_->settledAccessLog();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["status"].asString(), "400");
    EXPECT_EQ(entries[0]["verify"].asString().rfind("FAILED:", 0), 0u)
        << entries[0]["verify"].asString();
    EXPECT_EQ(backend_->requestCount(), 0u);
    expectRefusedBy(log, "1", 400, 1);
}

// The set-up itself: without a client certificate nothing reaches the backend, so the
// "SUCCESS" seen above is nginx's own verdict.
TEST_P(NginxInteropTest, ClientWithoutCertificateIsTurnedAway) {
    tk::ProbeOptions options;
    options.clientCertificate = false;
    options.body = smallReport();
    const tk::ProbeResult answer = tk::probe(pki_, url("/collector/anonymous"), options);
    EXPECT_EQ(answer.code, CURLE_OK) << curl_easy_strerror(answer.code);
    EXPECT_EQ(answer.status, 400);
    const auto entries = nginx_->settledAccessLog();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["verify"].asString(), "NONE");
    EXPECT_EQ(backend_->requestCount(), 0u);
}

// The set-up itself: each variant really speaks only its own TLS version.
TEST_P(NginxInteropTest, ClientOfTheOtherTlsVersionIsRefused) {
    tk::ProbeOptions options;
    options.sslVersion = GetParam().refusedClientTls;
    const tk::ProbeResult answer = tk::probe(pki_, url("/collector/old"), options);
    EXPECT_EQ(answer.code, CURLE_SSL_CONNECT_ERROR) << curl_easy_strerror(answer.code);
    EXPECT_EQ(backend_->requestCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Tls, NginxInteropTest, ::testing::ValuesIn(kVariants),
                         [](const ::testing::TestParamInfo<Variant>& param) {
                             return std::string(param.param.name);
                         });

} // namespace
