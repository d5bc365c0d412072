// The receiving side of the simulation: HTTPS event destinations and the SSE stream-server
// stand-in. Prints every delivery as one line when it arrives, keeps count per destination and
// per SSE key, watches the event log and the subscription store, and checks what arrived
// against what the scenario expects.
#ifndef RFEVENT_SIM_MONITOR_H
#define RFEVENT_SIM_MONITOR_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sse_receiver.h"
#include "sandbox.h"

namespace rfevent::sim {

// One received document, summarised for a line of output.
struct DocumentView {
    std::string type;     // "Event", "MetricReport", ... or "?" when not JSON
    std::string id;       // the most telling identifier of the document
    std::string detail;   // severity, sequence, ...
    Json::Value document; // null when not JSON
};
DocumentView describeDocument(const std::string& json);

// Set from a signal handler (SIGINT, SIGTERM): every wait returns at once.
void requestStop();
bool stopRequested();

class Monitor {
  public:
    Monitor(const Sandbox& sandbox, bool verbose, std::ostream& out);
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // A live HTTPS destination with mutual TLS answering every request with status (413 for
    // a collector that refuses what it gets); returns its URL for the subscription.
    std::string addDestination(const std::string& name, const testkit::TestPki& pki,
                               const std::string& path, int status = 200);
    // A destination where nothing listens; returns its URL.
    std::string addUnreachableDestination(const std::string& name, const std::string& path);
    // The SSE FIFO reader and the listener on a free loopback port; returns the port.
    int startSse();

    // Remembers the event log and the subscription store as they are now.
    void takeBaseline();

    // Prints what arrived since the last call.
    void poll();
    // Polls until every expectation is met or the time is up; true when met.
    bool waitForExpected(std::chrono::milliseconds timeout);
    // Polls until `done` or the time is up.
    bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    void expectDestination(const std::string& name, int count);
    void expectSse(const std::string& key, int count);
    void expectEventLog(const std::string& messageId, const std::string& argument, int count);
    void expectPolicy(const std::string& subscriptionId, const std::string& change);

    int destinationCount(const std::string& name) const;
    int sseCount(const std::string& key) const;
    // The sequence id ("<id:N>") of the last complete message under `key`, or "".
    std::string lastSseId(const std::string& key) const;
    std::string destinationUrl(const std::string& name) const;

    bool allExpectedArrived() const;
    // How many deliveries, entries and changes are expected in all.
    int expectedTotal() const;
    // How many expected deliveries, entries and changes are still missing.
    int shortfall() const;
    std::vector<std::string> missing() const;
    // The tables and the result line; `stepFailed`: a step of the run could not be carried
    // out (it said why on stderr), so the run is no success even with nothing missing.
    void printSummary(bool stepFailed);
    // Stops the receivers (what is still in flight is read first).
    void stop();

  private:
    struct Destination {
        std::string name;
        std::string url;
        std::unique_ptr<testkit::HttpsServer> server; // null: unreachable
        std::size_t seen = 0;
        int expected = 0;
    };
    struct SseKey {
        std::string channel; // "pipe" or "socket"
        int received = 0;
        int expected = 0;
        std::string lastId;
    };
    struct LogExpectation {
        std::string messageId;
        std::string argument;
        int expected = 0;
    };

    void pollDestinations();
    void pollSse();
    void pollEventLog();
    void pollSubscriptions();
    void recordSse(const std::string& channel, const std::string& key, const std::string& body,
                   bool complete);
    int eventLogCount(const LogExpectation& expectation) const;
    std::map<std::string, std::string> policyChanges() const;
    std::string stamp() const;
    void printDocument(const DocumentView& view);
    // The plug-in's delivery status once it accounts for every request a destination got
    // (it reaches its file within 3 s), or as it is after a few seconds.
    Json::Value settledDeliveryStatus();

    const Sandbox& sandbox_;
    bool verbose_;
    std::ostream& out_;
    std::chrono::steady_clock::time_point start_;
    std::vector<Destination> destinations_;
    std::unique_ptr<testkit::SseReceiver> sse_;
    std::size_t fifoSeen_ = 0;
    std::set<std::size_t> socketSeen_;
    std::map<std::string, SseKey> sseKeys_;
    std::size_t eventLogBaseline_ = 0;
    std::vector<Json::Value> newLogEntries_;
    std::vector<LogExpectation> logExpectations_;
    Json::Value storeBaseline_;
    std::set<std::string> printedChanges_;
    std::map<std::string, std::string> policyExpectations_;
};

} // namespace rfevent::sim

#endif
