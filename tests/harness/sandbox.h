// A sandbox root for the plug-in and the stand-alone platform (RFEVENT_ROOT), one per test
// process, plus helpers to write the files the plug-in reads.
#ifndef RFEVENT_TESTS_SANDBOX_H
#define RFEVENT_TESTS_SANDBOX_H

#include <string>
#include <vector>

#include <json/json.h>

namespace rfevent::testkit {

// The process's sandbox root (created by the test main before any test runs).
const std::string& sandboxRoot();

// root + an absolute product path, e.g. rooted("/var/run/lumenrest/SSE_FIFO").
std::string rooted(const std::string& absolutePath);

// Removes everything under the root and recreates the folders the product expects.
void resetSandbox();

// File helpers.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
void removeFile(const std::string& path);

// Attributes of the stand-alone configuration manager (var/lib/rfevent/attributes.json).
void writeAttributes(const Json::Value& attributes);
void setAttribute(const std::string& key, const Json::Value& value);
void removeAttribute(const std::string& key);

// The usual delivery settings: eventing on, attempts, interval, certificate switch, host.
// The plug-in uses the interval as the time-out of each transfer too (0: none).
void writeDeliveryAttributes(int attempts, int intervalSeconds, const std::string& ignoreCerts,
                             const std::string& hostName = "host.example");

// The interval for tests whose transfers must succeed within the time-out: room for TLS
// handshakes on an emulated target on a busy machine. Such tests make a transfer fail with a
// destination that fails at once (a closed port, a refused handshake), never by letting it
// time out, so the interval costs nothing.
constexpr int kRoomyIntervalSeconds = 30;

// The push subscription store and the SSE subscription file.
void writeSubscriptionStore(const Json::Value& store);
Json::Value readSubscriptionStore();
void writeSseSubscriptions(const Json::Value& subscriptions);

// Lines of var/lib/rfevent/eventlog.jsonl, parsed.
std::vector<Json::Value> eventLogEntries();

// Compact JSON with sorted members, as the plug-in writes documents.
std::string compactJson(const Json::Value& value);
Json::Value parseJson(const std::string& text);

} // namespace rfevent::testkit

#endif
