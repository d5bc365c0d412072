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
                                    const std::string& path, int status) {
    testkit::HttpsServerOptions options;
    options.requireClientCert = true;
    options.status = status;
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

} // namespace rfevent::sim
