#include "monitor.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <thread>

namespace rfevent::sim {

namespace {

std::atomic<bool> g_stopRequested{false};

constexpr const char* kIdMarker = "<id:";
constexpr const char* kEndMarker = "<END>";

std::string lastSegment(const std::string& text, char separator) {
    auto at = text.rfind(separator);
    return at == std::string::npos ? text : text.substr(at + 1);
}

std::string stripEquals(std::string key) {
    if (!key.empty() && key.back() == '=') {
        key.pop_back();
    }
    return key;
}

// Splits "<id:N>:document" into N and the document.
void splitSequence(const std::string& body, std::string& id, std::string& document) {
    id.clear();
    document = body;
    if (body.compare(0, 4, kIdMarker) != 0) {
        return;
    }
    auto close = body.find(">:");
    if (close == std::string::npos) {
        return;
    }
    id = body.substr(4, close - 4);
    document = body.substr(close + 2);
}

std::string pad(const std::string& text, std::size_t width) {
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

} // namespace

void requestStop() {
    g_stopRequested.store(true, std::memory_order_relaxed);
}

bool stopRequested() {
    return g_stopRequested.load(std::memory_order_relaxed);
}

DocumentView describeDocument(const std::string& json) {
    DocumentView view;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(json);
    if (json.empty() || !Json::parseFromStream(builder, in, &view.document, &errors) ||
        !view.document.isObject()) {
        view.type = json.empty() ? "(empty)" : "(not JSON)";
        view.document = Json::Value();
        return view;
    }
    const Json::Value& doc = view.document;
    view.type =
        doc["@odata.type"].isString() ? lastSegment(doc["@odata.type"].asString(), '.') : "?";
    const Json::Value& events = doc["Events"];
    if (events.isArray() && !events.empty() && events[0].isObject()) {
        const Json::Value& event = events[0];
        view.id = "EventId " + event.get("EventId", "?").asString();
        if (event["MessageId"].isString()) {
            view.id += " " + event["MessageId"].asString();
        }
        view.detail = event.get("Severity", "?").asString();
        if (event["OriginOfCondition"].isObject()) {
            view.detail += " " + event["OriginOfCondition"].get("@odata.id", "").asString();
        }
    } else {
        view.id = doc["Id"].isString() ? doc["Id"].asString()
                                       : doc.get("MetricReportName", "?").asString();
        if (doc.isMember("ReportSequence") && !doc["ReportSequence"].isObject() &&
            !doc["ReportSequence"].isArray()) {
            view.detail = "seq " + doc["ReportSequence"].asString();
        }
    }
    return view;
}

Monitor::Monitor(const Sandbox& sandbox, bool verbose, std::ostream& out)
    : sandbox_(sandbox), verbose_(verbose), out_(out), start_(std::chrono::steady_clock::now()) {}

Monitor::~Monitor() {
    stop();
}

std::string Monitor::addDestination(const std::string& name, const testkit::TestPki& pki,
                                    const std::string& path) {
    testkit::HttpsServerOptions options;
    options.requireClientCert = true;
    auto server = std::make_unique<testkit::HttpsServer>(pki, options);
    std::string url = server->url(path);
    destinations_.push_back({name, url, std::move(server), 0, 0});
    return url;
}

std::string Monitor::addUnreachableDestination(const std::string& name, const std::string& path) {
    std::string url =
        "https://127.0.0.1:" + std::to_string(testkit::HttpsServer::closedLoopbackPort()) + path;
    destinations_.push_back({name, url, nullptr, 0, 0});
    return url;
}

int Monitor::startSse() {
    testkit::SseReceiverOptions options;
    options.fifoPath = sandbox_.path(paths::kSseFifo);
    options.port = 0;
    sse_ = std::make_unique<testkit::SseReceiver>(options);
    return sse_->port();
}

void Monitor::takeBaseline() {
    eventLogBaseline_ = sandbox_.eventLogEntries().size();
    storeBaseline_ = sandbox_.readSubscriptionStore();
}

std::string Monitor::stamp() const {
    auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    char text[32];
    std::snprintf(text, sizeof text, "[+%6.2fs]", elapsed);
    return text;
}

void Monitor::printDocument(const DocumentView& view) {
    if (!verbose_ || view.document.isNull()) {
        return;
    }
    std::istringstream lines(view.document.toStyledString());
    std::string line;
    while (std::getline(lines, line)) {
        out_ << "            " << line << "\n";
    }
}

void Monitor::poll() {
    pollDestinations();
    pollSse();
    pollEventLog();
    pollSubscriptions();
    out_.flush();
}

void Monitor::pollDestinations() {
    for (Destination& destination : destinations_) {
        if (!destination.server) {
            continue;
        }
        auto requests = destination.server->requests();
        for (; destination.seen < requests.size(); ++destination.seen) {
            const testkit::RecordedRequest& request = requests[destination.seen];
            DocumentView view = describeDocument(request.body);
            std::string tls = request.clientCertVerified ? "mTLS " + request.clientCn
                                                         : std::string("no client certificate");
            out_ << stamp() << " HTTPS  " << pad(destination.name, 14) << pad(view.type, 13)
                 << pad(view.id, 30) << pad(view.detail, 12) << request.body.size() << " bytes ("
                 << request.method << " " << request.target << ", " << tls << ")\n";
            printDocument(view);
        }
    }
}

void Monitor::recordSse(const std::string& channel, const std::string& key, const std::string& body,
                        bool complete) {
    SseKey& stats = sseKeys_[key];
    stats.channel = channel;
    ++stats.received;
    std::string id;
    std::string document;
    splitSequence(body, id, document);
    stats.lastId = id;
    DocumentView view = describeDocument(document);
    std::string what = body.empty() ? "end marker only" : view.type + "  " + view.id;
    if (!view.detail.empty() && !body.empty()) {
        what += " (" + view.detail + ")";
    }
    out_ << stamp() << " SSE    " << pad(channel, 7) << pad(key, 40)
         << pad(body.empty() ? "-" : "<id:" + id + ">", 9) << pad(what, 40) << body.size()
         << " bytes" << (complete ? "" : " (no end marker)") << "\n";
    printDocument(view);
}

void Monitor::pollSse() {
    if (!sse_) {
        return;
    }
    auto frames = sse_->fifoMessages();
    for (; fifoSeen_ < frames.size(); ++fifoSeen_) {
        std::string frame = frames[fifoSeen_];
        std::string key = testkit::ssePrefix(frame);
        std::string body = frame.substr(key.size());
        std::string end = kEndMarker;
        bool complete = body.size() >= end.size() &&
                        body.compare(body.size() - end.size(), end.size(), end) == 0;
        if (complete) {
            body.resize(body.size() - end.size());
        }
        recordSse("pipe", stripEquals(key), body, complete);
    }
    auto messages = sse_->messages();
    for (std::size_t i = 0; i < messages.size(); ++i) {
        if (!messages[i].complete || socketSeen_.count(i) != 0) {
            continue;
        }
        socketSeen_.insert(i);
        const testkit::SseMessage& message = messages[i];
        std::string body = message.text.size() >= message.key.size()
                               ? message.text.substr(message.key.size())
                               : std::string();
        recordSse("socket", stripEquals(message.key), body, true);
    }
}

void Monitor::pollEventLog() {
    auto entries = sandbox_.eventLogEntries();
    for (std::size_t i = eventLogBaseline_ + newLogEntries_.size(); i < entries.size(); ++i) {
        const Json::Value& entry = entries[i];
        std::string args;
        for (const Json::Value& arg : entry["MessageArgs"]) {
            args += (args.empty() ? "" : ", ") + arg.asString();
        }
        out_ << stamp() << " LOG    " << pad(entry.get("MessageId", "?").asString(), 8) << "["
             << args << "]\n";
        newLogEntries_.push_back(entry);
    }
}

std::map<std::string, std::string> Monitor::policyChanges() const {
    std::map<std::string, std::string> changes;
    if (!storeBaseline_.isObject()) {
        return changes;
    }
    Json::Value now = sandbox_.readSubscriptionStore();
    if (!now.isObject()) {
        return changes;
    }
    for (const std::string& id : storeBaseline_.getMemberNames()) {
        const Json::Value& before = storeBaseline_[id];
        if (!now.isMember(id)) {
            changes[id] = "removed";
            continue;
        }
        const Json::Value& after = now[id];
        std::string change;
        if (after.get("SubscriptionStateAfterRetry", Json::Value()) !=
            before.get("SubscriptionStateAfterRetry", Json::Value())) {
            change = "SubscriptionStateAfterRetry=" +
                     after.get("SubscriptionStateAfterRetry", "").asString();
        }
        if (after.isMember("InvalidDestination") != before.isMember("InvalidDestination")) {
            change += std::string(change.empty() ? "" : ", ") +
                      (after.isMember("InvalidDestination") ? "InvalidDestination"
                                                            : "InvalidDestination cleared");
        }
        if (!change.empty()) {
            changes[id] = change;
        }
    }
    return changes;
}

void Monitor::pollSubscriptions() {
    for (const auto& [id, change] : policyChanges()) {
        std::string seen = id;
        seen += "|";
        seen += change;
        if (printedChanges_.insert(seen).second) {
            out_ << stamp() << " POLICY subscription " << id << ": " << change << "\n";
        }
    }
}

bool Monitor::waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        poll();
        if (done()) {
            return true;
        }
        if (stopRequested() || std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

bool Monitor::waitForExpected(std::chrono::milliseconds timeout) {
    return waitUntil([this] { return allExpectedArrived(); }, timeout);
}

void Monitor::expectDestination(const std::string& name, int count) {
    for (Destination& destination : destinations_) {
        if (destination.name == name) {
            destination.expected += count;
        }
    }
}

void Monitor::expectSse(const std::string& key, int count) {
    sseKeys_[key].expected += count;
}

void Monitor::expectEventLog(const std::string& messageId, const std::string& argument, int count) {
    for (LogExpectation& expectation : logExpectations_) {
        if (expectation.messageId == messageId && expectation.argument == argument) {
            expectation.expected += count;
            return;
        }
    }
    logExpectations_.push_back({messageId, argument, count});
}

void Monitor::expectPolicy(const std::string& subscriptionId, const std::string& change) {
    policyExpectations_[subscriptionId] = change;
}

int Monitor::destinationCount(const std::string& name) const {
    for (const Destination& destination : destinations_) {
        if (destination.name == name) {
            return static_cast<int>(destination.seen);
        }
    }
    return 0;
}

int Monitor::sseCount(const std::string& key) const {
    auto it = sseKeys_.find(key);
    return it == sseKeys_.end() ? 0 : it->second.received;
}

std::string Monitor::lastSseId(const std::string& key) const {
    auto it = sseKeys_.find(key);
    return it == sseKeys_.end() ? "" : it->second.lastId;
}

std::string Monitor::destinationUrl(const std::string& name) const {
    for (const Destination& destination : destinations_) {
        if (destination.name == name) {
            return destination.url;
        }
    }
    return "";
}

int Monitor::eventLogCount(const LogExpectation& expectation) const {
    int count = 0;
    for (const Json::Value& entry : newLogEntries_) {
        if (entry.get("MessageId", "").asString() != expectation.messageId) {
            continue;
        }
        bool hasArgument = expectation.argument.empty();
        for (const Json::Value& arg : entry["MessageArgs"]) {
            hasArgument = hasArgument || (arg.isString() && arg.asString() == expectation.argument);
        }
        count += hasArgument ? 1 : 0;
    }
    return count;
}

std::vector<std::string> Monitor::missing() const {
    std::vector<std::string> gaps;
    for (const Destination& destination : destinations_) {
        if (static_cast<int>(destination.seen) < destination.expected) {
            gaps.push_back("destination " + destination.name + ": " +
                           std::to_string(destination.seen) + " of " +
                           std::to_string(destination.expected));
        }
    }
    for (const auto& [key, stats] : sseKeys_) {
        if (stats.received < stats.expected) {
            gaps.push_back("SSE \"" + key + "\": " + std::to_string(stats.received) + " of " +
                           std::to_string(stats.expected));
        }
    }
    for (const LogExpectation& expectation : logExpectations_) {
        int count = eventLogCount(expectation);
        if (count < expectation.expected) {
            gaps.push_back("event log " + expectation.messageId + ": " + std::to_string(count) +
                           " of " + std::to_string(expectation.expected));
        }
    }
    auto changes = policyChanges();
    for (const auto& [id, change] : policyExpectations_) {
        auto it = changes.find(id);
        if (it == changes.end() || it->second != change) {
            std::string gap = "subscription " + id;
            gap += ": ";
            gap += change;
            gap += " not seen";
            gaps.push_back(gap);
        }
    }
    return gaps;
}

bool Monitor::allExpectedArrived() const {
    return missing().empty();
}

int Monitor::expectedTotal() const {
    int total = static_cast<int>(policyExpectations_.size());
    for (const Destination& destination : destinations_) {
        total += destination.expected;
    }
    for (const auto& entry : sseKeys_) {
        total += entry.second.expected;
    }
    for (const LogExpectation& expectation : logExpectations_) {
        total += expectation.expected;
    }
    return total;
}

int Monitor::shortfall() const {
    int total = 0;
    for (const Destination& destination : destinations_) {
        total += std::max(0, destination.expected - static_cast<int>(destination.seen));
    }
    for (const auto& [key, stats] : sseKeys_) {
        total += std::max(0, stats.expected - stats.received);
    }
    for (const LogExpectation& expectation : logExpectations_) {
        total += std::max(0, expectation.expected - eventLogCount(expectation));
    }
    auto changes = policyChanges();
    for (const auto& [id, change] : policyExpectations_) {
        auto it = changes.find(id);
        total += (it == changes.end() || it->second != change) ? 1 : 0;
    }
    return total;
}

void Monitor::printSummary() {
    poll();
    auto status = [](int received, int expected) {
        return received < expected ? "MISSING" : (received > expected ? "ok (more)" : "ok");
    };
    out_ << "\nSummary\n";
    out_ << "  " << pad("Destination", 16) << pad("URL", 40) << pad("expected", 10)
         << pad("received", 10) << "status\n";
    for (const Destination& destination : destinations_) {
        int received = static_cast<int>(destination.seen);
        out_ << "  " << pad(destination.name, 16) << pad(destination.url, 40)
             << pad(std::to_string(destination.expected), 10) << pad(std::to_string(received), 10)
             << status(received, destination.expected) << "\n";
    }
    std::size_t keyWidth = 16;
    for (const auto& entry : sseKeys_) {
        keyWidth = std::max(keyWidth, entry.first.size() + 2);
    }
    out_ << "  " << pad("SSE key", keyWidth) << pad("channel", 8) << pad("expected", 10)
         << pad("received", 10) << "status\n";
    for (const auto& [key, stats] : sseKeys_) {
        out_ << "  " << pad(key, keyWidth) << pad(stats.channel.empty() ? "-" : stats.channel, 8)
             << pad(std::to_string(stats.expected), 10) << pad(std::to_string(stats.received), 10)
             << status(stats.received, stats.expected) << "\n";
    }
    out_ << "  Event-log entries: " << newLogEntries_.size() << " new\n";
    for (const LogExpectation& expectation : logExpectations_) {
        int count = eventLogCount(expectation);
        out_ << "    " << pad(expectation.messageId + " [" + expectation.argument + "]", 60)
             << pad(std::to_string(expectation.expected), 10) << pad(std::to_string(count), 10)
             << status(count, expectation.expected) << "\n";
    }
    auto changes = policyChanges();
    out_ << "  Subscriptions changed by policy: " << changes.size() << "\n";
    for (const auto& [id, change] : changes) {
        auto expected = policyExpectations_.find(id);
        out_ << "    " << pad(id, 6) << pad(change, 54)
             << (expected == policyExpectations_.end()
                     ? "(not expected)"
                     : (expected->second == change ? "ok" : "expected " + expected->second))
             << "\n";
    }
    for (const auto& [id, change] : policyExpectations_) {
        if (changes.count(id) == 0) {
            out_ << "    " << pad(id, 6) << pad("(unchanged)", 54) << "MISSING: expected " << change
                 << "\n";
        }
    }
    auto gaps = missing();
    if (gaps.empty()) {
        out_ << "Result: every expected delivery arrived\n";
    } else {
        out_ << "Result: " << gaps.size() << " expectation(s) not met\n";
        for (const std::string& gap : gaps) {
            out_ << "  - " << gap << "\n";
        }
    }
    out_.flush();
}

void Monitor::stop() {
    if (sse_) {
        sse_->stop();
    }
    for (Destination& destination : destinations_) {
        if (destination.server) {
            destination.server->stop();
        }
    }
}

} // namespace rfevent::sim
