// What the host-integration tests share: a sandbox with client credentials, one HTTPS
// destination, and the push and SSE subscriptions that make an alert and a report go out.
#ifndef RFEVENT_TESTS_HOST_HOST_SETUP_H
#define RFEVENT_TESTS_HOST_HOST_SETUP_H

#include <memory>
#include <string>

#include "events/alert_record.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "rfevent/redfish_event.h"

namespace rfevent::testkit {

// The definition every test report names, and the SSE filter that asks for it.
inline const char* const kHostReportDefinition =
    "/redfish/v1/TelemetryService/MetricReportDefinitions/T";

// A metric report of about size bytes for kHostReportDefinition.
inline std::string hostReport(std::size_t size, int sequence = 9) {
    const std::string head = std::string(R"({"MetricReportDefinition":{"@odata.id":")") +
                             kHostReportDefinition + R"("},"ReportSequence":")" +
                             std::to_string(sequence) + R"(","Pad":")";
    return head + std::string(size > head.size() + 2 ? size - head.size() - 2 : 0, 'p') + "\"}";
}

class HostSetup {
  public:
    explicit HostSetup(const HttpsServerOptions& options = defaultOptions()) {
        resetSandbox();
        pki_ = generateTestPki(rooted("/pki"));
        installClientCredentials(pki_, sandboxRoot());
        writeDeliveryAttributes(1, kRoomyIntervalSeconds, "No");
        server = std::make_unique<HttpsServer>(pki_, options);
    }

    static HttpsServerOptions defaultOptions() {
        HttpsServerOptions options;
        options.requireClientCert = false;
        return options;
    }

    // Subscription "1" takes every metric report, "2" every alert, both at the destination;
    // an SSE client asks for the test reports.
    void subscribeAll() {
        Json::Value store(Json::objectValue);
        store["1"]["EventFormatType"] = "MetricReport";
        store["1"]["Destination"] = server->url("/metrics");
        store["2"]["Destination"] = server->url("/alerts");
        store["2"]["EventTypes"].append("Alert");
        writeSubscriptionStore(store);
        Json::Value sse(Json::objectValue);
        sse["client"]["Event-type"] =
            std::string("MetricReportDefinition eq '") + kHostReportDefinition + "'";
        sse["alerts"]["EventTypes"].append("Alert");
        writeSseSubscriptions(sse);
    }

    // One alert through the host's entry point: the subscriber path, then the SSE FIFO.
    static void sendAlert() {
        AlertRecord record(fullAlert());
        int context = 0;
        sendRedFishEventAlert(record.header(), &context);
    }

    std::unique_ptr<HttpsServer> server;

  private:
    TestPki pki_;
};

} // namespace rfevent::testkit

#endif
