// One push subscriber for metric reports: client credentials and delivery settings in the
// sandbox, an HTTPS destination, and a store whose only subscription ("1") asks for every report.
#ifndef RFEVENT_TESTS_TELEMETRY_PUSH_SUBSCRIBER_H
#define RFEVENT_TESTS_TELEMETRY_PUSH_SUBSCRIBER_H

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace rfevent::testkit {

class MetricReportSubscriber {
  public:
    MetricReportSubscriber() {
        Json::Value store(Json::objectValue);
        store["1"]["EventFormatType"] = "MetricReport";
        store["1"]["Destination"] = server.url("/metrics");
        writeSubscriptionStore(store);
    }

  private:
    static TestPki preparedPki() {
        TestPki pki = generateTestPki(rooted("/pki"));
        installClientCredentials(pki, sandboxRoot());
        writeDeliveryAttributes(1, kRoomyIntervalSeconds, "No");
        return pki;
    }

    // Metric reports go out in parallel without a client certificate.
    static HttpsServerOptions options() {
        HttpsServerOptions options;
        options.requireClientCert = false;
        return options;
    }

    TestPki pki_ = preparedPki();

  public:
    HttpsServer server{pki_, options()};
};

} // namespace rfevent::testkit

#endif
