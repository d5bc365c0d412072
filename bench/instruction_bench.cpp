// Instructions counted by callgrind: telemetry pipe announcements read and parsed, and the
// composition of one event document. Each side runs in a child process under valgrind, which
// counts only between the two toggles around the measured loop.
#include <fcntl.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/pipe_thread_internal.h"
#include "cases.h"
#include "events/event_record.h"
#include "events/subscriber_path.h"
#include "events/subscriber_path_internal.h"
#include "harness/sandbox.h"
#include "platform/platform.h"
#include "telemetry/notify_thread_internal.h"

namespace rfevent::bench {

namespace {

constexpr int kAnnouncements = 20000;
constexpr int kDocuments = 2000;

// ---- pipe announcements ------------------------------------------------------------------

long g_lookups = 0;

char* noSuchReport(const char* name) {
    g_lookups += name[0] != '\0' ? 1 : 0;
    return nullptr;
}

// What the telemetry service writes for one report: its name, "|" and a NUL.
std::vector<std::string> announcements() {
    std::vector<std::string> list;
    for (int i = 0; i < kAnnouncements; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "PowerMetrics%04d|", i % 10000);
        list.emplace_back(name, std::strlen(name) + 1);
    }
    return list;
}

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        read = fds[0];
        write = fds[1];
    }
    ~Pipe() {
        ::close(read);
        ::close(write);
    }
};

void writeAll(int fd, const std::string& bytes) {
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("pipe write failed");
    }
}

// The plug-in's reader: one read of the pipe per announcement, as they arrive one by one.
void parseWithPlugin(const std::vector<std::string>& list, bool counted) {
    auto state = std::make_unique<TelemetryPipeState>();
    state->lookup = noSuchReport;
    const PipeThread reader = telemetryPipe(*state);
    Pipe pipe;
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
    for (const std::string& announcement : list) {
        writeAll(pipe.write, announcement);
        readPipeOnce(reader, pipe.read);
    }
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
}

// The shortest reader: split at "|", skip the NUL after it, look the name up.
void parseWithFloor(const std::vector<std::string>& list, bool counted) {
    char buffer[kTelemetryReadSize];
    char name[kTelemetryNameSize];
    char* (*lookup)(const char*) = noSuchReport;
    Pipe pipe;
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
    for (const std::string& announcement : list) {
        writeAll(pipe.write, announcement);
        ssize_t count = ::read(pipe.read, buffer, sizeof buffer);
        std::size_t length = 0;
        for (ssize_t i = 0; i < count; ++i) {
            if (buffer[i] == '|') {
                name[length] = '\0';
                std::free(lookup(name));
                length = 0;
                ++i;
            } else if (length + 1 < sizeof name) {
                name[length++] = buffer[i];
            }
        }
    }
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
}

// ---- event documents ---------------------------------------------------------------------

Json::Value sampleSubscription() {
    Json::Value subscription(Json::objectValue);
    subscription["Destination"] = "https://198.51.100.7/events";
    subscription["EventTypes"][0] = "Alert";
    subscription["Context"] = "bench-0";
    return subscription;
}

std::string pluginDocument(const DataEventHeader* alert, const Json::Value& subscription) {
    return writeCompactJson(
        composeSubscriberDocument(alert, eventTimestamp(), "1000", subscription));
}

std::string hostName() {
    SMILObj* object = nullptr;
    std::string name;
    if (client_get_obj_by_key("com.orva.tavik.CfgMgr", "System.Embedded.1#ServerOS.1#HostName",
                              &object, 0) != 0 ||
        object == nullptr) {
        return name;
    }
    void* body = nullptr;
    char* text = nullptr;
    if (client_get_obj_body_ptr(object, &body, object->typeCode) == 0 && body != nullptr &&
        client_get_string_ptr(object, static_cast<CfgStringAttrBody*>(body)->valueRef, &text) ==
            0 &&
        text != nullptr) {
        name = text;
    }
    SMILFreeGeneric(object);
    return name;
}

// The same document by the shortest direct code for this alert: fields straight from the
// record, the one FQDD rule it needs, the host name from the configuration manager.
std::string floorDocument(const DataEventHeader* alert, const Json::Value& subscription) {
    const char* base = reinterpret_cast<const char*>(alert);
    char timestamp[32];
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(timestamp, sizeof timestamp, "%Y-%m-%dT%H:%M:%S%z", &local);

    Json::Value event(Json::objectValue);
    event["EventType"] = "Alert";
    event["EventId"] = std::to_string(alert->eventId);
    event["EventTimestamp"] = timestamp;
    event["Severity"] = "Warning";
    event["MessageSeverity"] = "Warning";
    event["MemberId"] = std::to_string(alert->memberId);
    event["MessageId"] = std::string("TAVIK.2.8.") + (base + alert->messageIdOffset);
    event["Message"] = base + alert->messageOffset;
    Json::Value args(Json::arrayValue);
    for (const char* arg = base + alert->messageArgsOffset; *arg != '\0';
         arg += std::strlen(arg) + 1) {
        args.append(arg);
    }
    event["MessageArgs@odata.count"] = static_cast<Json::Int>(args.size());
    event["MessageArgs"] = args;
    event["Context"] = subscription["Context"];
    event["OriginOfCondition"]["@odata.id"] =
        std::string("/redfish/v1/Systems/") + (base + alert->fqddOffset);

    Json::Value document(Json::objectValue);
    document["@odata.context"] = "/redfish/v1/$metadata#Event.Event";
    document["@odata.type"] = "#Event.v1_5_0.Event";
    document["@odata.id"] = "/redfish/v1/EventService/Events/1000";
    document["Id"] = "1000";
    document["Name"] = "Event Array";
    document["Context"] = subscription["Context"];
    document["Events"].append(event);
    document["Oem"]["Orva"]["ServerHostname"] = hostName();
    document["Oem"]["Orva"]["@odata.type"] = "#OrvaEvent.v1_0_0.OrvaEvent";
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, document);
}

// The document with its time stamp blanked: the two sides may straddle a second.
std::string withoutTimestamp(std::string document) {
    const std::string key = "\"EventTimestamp\":\"";
    const std::size_t start = document.find(key);
    if (start != std::string::npos) {
        const std::size_t from = start + key.size();
        document.erase(from, document.find('"', from) - from);
    }
    return document;
}

void composeDocuments(bool plugin, bool counted) {
    const DataEventHeader* alert = sampleAlert();
    const Json::Value subscription = sampleSubscription();
    // Both sides must produce the same bytes, or the floor measures something else.
    const std::string a = pluginDocument(alert, subscription);
    const std::string b = floorDocument(alert, subscription);
    if (withoutTimestamp(a) != withoutTimestamp(b)) {
        std::fprintf(stderr, "plug-in: %s\nfloor:   %s\n", a.c_str(), b.c_str());
        throw std::runtime_error("compose case: the floor's document differs");
    }
    std::size_t bytes = 0;
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
    for (int i = 0; i < kDocuments; ++i) {
        bytes += plugin ? pluginDocument(alert, subscription).size()
                        : floorDocument(alert, subscription).size();
    }
    if (counted) {
        CALLGRIND_TOGGLE_COLLECT;
    }
    std::printf("bytes %zu\n", bytes / kDocuments);
}

// ---- the parent side ---------------------------------------------------------------------

// Total instructions of a callgrind output file (the "summary:" or "totals:" line).
double countedInstructions(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    double total = -1;
    while (std::getline(in, line)) {
        for (const char* key : {"summary: ", "totals: "}) {
            if (line.rfind(key, 0) == 0) {
                total = std::stod(line.substr(std::strlen(key)));
            }
        }
    }
    return total;
}

} // namespace

// callgrind stops counting on entry to an excluded function and resumes on its exit.
double underCallgrind(const Context& context, const std::string& child,
                      const std::vector<std::string>& exclude) {
    const std::string out = context.root + "/callgrind." + child;
    std::vector<std::string> command = {"valgrind", "-q", "--tool=callgrind",
                                        "--collect-atstart=no", "--callgrind-out-file=" + out};
    for (const std::string& pattern : exclude) {
        command.push_back("--toggle-collect=" + pattern);
    }
    command.insert(command.end(), {context.self, "--child", child});
    int status = 0;
    runProgram(command, &status);
    const double total = countedInstructions(out);
    if (status != 0 || total <= 0) {
        throw std::runtime_error("callgrind run of " + child + " failed (status " +
                                 std::to_string(status) + ")");
    }
    return total;
}

namespace {} // namespace

int runInstructionChild(const std::string& name) {
    if (name == "parse-plugin" || name == "parse-floor") {
        const std::vector<std::string> list = announcements();
        name == "parse-plugin" ? parseWithPlugin(list, true) : parseWithFloor(list, true);
        return g_lookups == kAnnouncements ? 0 : 1;
    }
    if (name == "compose-plugin" || name == "compose-floor") {
        composeDocuments(name == "compose-plugin", true);
        return 0;
    }
    return 2;
}

void runInstructionCases(const Context& context, Table& table) {
    testkit::writeDeliveryAttributes(3, 5, "Yes");
    const double parsePlugin = underCallgrind(context, "parse-plugin");
    const double parseFloor = underCallgrind(context, "parse-floor");
    table.add({"pipe announcement read and parsed (callgrind)", parsePlugin / kAnnouncements,
               parseFloor / kAnnouncements, Unit::Instructions, true, kInstructionBound});

    // The same loops natively, for the rate.
    const std::vector<std::string> list = announcements();
    Comparison rate =
        compareAlternating([&] { parseWithPlugin(list, false); },
                           [&] { parseWithFloor(list, false); }, context.schedule(7, 1));
    table.add({"pipe announcements parsed per second", kAnnouncements / rate.plugin,
               kAnnouncements / rate.floor, Unit::PerSecond, true, kInstructionBound});

    const double composePlugin = underCallgrind(context, "compose-plugin");
    const double composeFloor = underCallgrind(context, "compose-floor");
    table.add({"event document composed, no network (callgrind)", composePlugin / kDocuments,
               composeFloor / kDocuments, Unit::Instructions, true, kInstructionBound});
    // Most of the above is the platform's configuration read of the host name, the same on
    // both sides; without it the composition itself shows.
    const double ownPlugin = underCallgrind(context, "compose-plugin", {"client_get_obj_by_key"});
    const double ownFloor = underCallgrind(context, "compose-floor", {"client_get_obj_by_key"});
    table.add({"event document composed, configuration read left out", ownPlugin / kDocuments,
               ownFloor / kDocuments, Unit::Instructions, true, kInstructionBound});
}

} // namespace rfevent::bench
