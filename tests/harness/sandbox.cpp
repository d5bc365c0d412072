#include "harness/sandbox.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace rfevent::testkit {

const std::string& sandboxRoot() {
    static const std::string root = [] {
        const char* value = std::getenv("RFEVENT_ROOT");
        if (value == nullptr || *value == '\0') {
            throw std::runtime_error("RFEVENT_ROOT is not set: link the harness main");
        }
        return std::string(value);
    }();
    return root;
}

std::string rooted(const std::string& absolutePath) {
    return sandboxRoot() + absolutePath;
}

void resetSandbox() {
    const std::string& root = sandboxRoot();
    for (const auto& entry : fs::directory_iterator(root)) {
        if (entry.path().filename() != "log.txt") {
            fs::remove_all(entry.path());
        }
    }
    for (const char* folder :
         {"/var/lib/rfevent", "/var/lib/lumenrest/redfish_subscriptions", "/var/run/lumenrest",
          "/var/run/lumenrest-providers", "/var/run/telemetryservice", "/var/tmp/telemetry",
          "/etc/certs/CA/certs", "/etc/certs/pubkey", "/flash/data0/cv/private",
          "/flash/data0/IERR_LOG/IERR_LOG1"}) {
        fs::create_directories(root + folder);
    }
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool fileExists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

void removeFile(const std::string& path) {
    fs::remove(path);
}

static std::string attributesPath() {
    return rooted("/var/lib/rfevent/attributes.json");
}

void writeAttributes(const Json::Value& attributes) {
    writeFile(attributesPath(), attributes.toStyledString());
}

static Json::Value readAttributes() {
    if (!fileExists(attributesPath())) {
        return Json::Value(Json::objectValue);
    }
    return parseJson(readFile(attributesPath()));
}

void setAttribute(const std::string& key, const Json::Value& value) {
    Json::Value attributes = readAttributes();
    attributes[key] = value;
    writeAttributes(attributes);
}

void removeAttribute(const std::string& key) {
    Json::Value attributes = readAttributes();
    attributes.removeMember(key);
    writeAttributes(attributes);
}

void writeDeliveryAttributes(int attempts, int intervalSeconds, const std::string& ignoreCerts,
                             const std::string& hostName) {
    Json::Value attributes = readAttributes();
    attributes["Tavik.Embedded.1#RedfishEventing.1#EventEnable"] = "1";
    attributes["Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryAttempts"] = attempts;
    attributes["Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds"] =
        intervalSeconds;
    Json::Value ignore(Json::objectValue);
    ignore["type"] = "enumeration";
    ignore["value"] = ignoreCerts;
    attributes["Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors"] = ignore;
    attributes["System.Embedded.1#ServerOS.1#HostName"] = hostName;
    writeAttributes(attributes);
}

void writeSubscriptionStore(const Json::Value& store) {
    writeFile(rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json"),
              store.toStyledString());
}

Json::Value readSubscriptionStore() {
    return parseJson(
        readFile(rooted("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json")));
}

void writeSseSubscriptions(const Json::Value& subscriptions) {
    writeFile(rooted("/var/run/lumenrest/sse_subscriptions.json"), subscriptions.toStyledString());
}

std::vector<Json::Value> eventLogEntries() {
    std::vector<Json::Value> entries;
    std::istringstream lines(readFile(rooted("/var/lib/rfevent/eventlog.jsonl")));
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty()) {
            entries.push_back(parseJson(line));
        }
    }
    return entries;
}

std::string compactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

Json::Value parseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errors;
    std::istringstream in(text);
    if (!Json::parseFromStream(builder, in, &root, &errors)) {
        throw std::runtime_error("bad JSON in test: " + errors);
    }
    return root;
}

} // namespace rfevent::testkit
