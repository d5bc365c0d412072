// A host that loads the plug-in and runs its delivery paths while allocations fail, then
// checks that it survived and that deliveries resume once allocations succeed again. Run it
// with the allocation-failure shim preloaded (scripts/gates/55-allocfail.sh does):
//
//   LD_PRELOAD=liballocfail.so rfevent_allocfail_host [plug-in] [one in N] [seed]
//
// The destination is a mutual-TLS HTTPS server in a child process started before anything of
// TLS is set up in this one, so the plug-in's first TLS work happens while allocations fail.
// Failures hit the plug-in's threads ("rf-" names, and any thread they start) and the thread
// that calls the alert entry ("af-alerts"); the host's own threads never fail.
//
// Phase 1 (failures on): alerts, and metric reports through the test report pipe.
// Phase 2 (failures off): more alerts and reports, each marked; every one of them must arrive.
// Before it, the store is written afresh (see main).
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <json/json.h>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "sim/alert_record.h"

namespace {

using namespace rfevent::testkit;
using Clock = std::chrono::steady_clock;
using SwitchFn = unsigned long long (*)(unsigned, unsigned long long, const char*);
using AlertFn = void (*)(DataEventHeader*, void*);

constexpr int kPhase1Alerts = 300;
constexpr int kPhase1Reports = 150;
constexpr int kPhase2Alerts = 20;
constexpr int kPhase2Reports = 20;
constexpr auto kDeadline = std::chrono::seconds(30);

std::atomic<bool> g_stopping{false};

// ---- the destination, in a child process -------------------------------------------------

// Answers "<target> <marker>" lines on channel with the number of requests recorded for that
// target whose body holds the marker, until the channel closes.
void answerCounts(const HttpsServer& server, int channel) {
    FILE* in = fdopen(channel, "r");
    char line[256];
    while (in != nullptr && std::fgets(line, sizeof line, in) != nullptr) {
        char target[128] = {};
        char marker[128] = {};
        std::sscanf(line, "%127s %127s", target, marker);
        std::size_t count = 0;
        for (const RecordedRequest& request : server.requests()) {
            count += request.target == target && request.body.find(marker) != std::string::npos;
        }
        const std::string answer = std::to_string(count) + "\n";
        (void)!::write(channel, answer.data(), answer.size());
    }
}

[[noreturn]] void runDestination(int channel) {
    const TestPki pki = generateTestPki(sandboxRoot() + "/pki");
    installClientCredentials(pki, sandboxRoot());
    HttpsServer server(pki);
    const std::string port = std::to_string(server.port()) + "\n";
    (void)!::write(channel, port.data(), port.size());
    answerCounts(server, channel);
    server.stop();
    std::_Exit(0);
}

// ---- the host's side ---------------------------------------------------------------------

struct Destination {
    pid_t pid = -1;
    int channel = -1;
    int port = 0;

    std::size_t count(const std::string& target, const std::string& marker) const {
        const std::string question = target + " " + marker + "\n";
        char answer[32] = {};
        if (::write(channel, question.data(), question.size()) < 0 ||
            ::read(channel, answer, sizeof answer - 1) <= 0) {
            return 0;
        }
        return std::strtoul(answer, nullptr, 10);
    }
};

Destination startDestination() {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        std::perror("socketpair");
        std::exit(2);
    }
    Destination destination;
    destination.pid = ::fork();
    if (destination.pid == 0) {
        ::close(pair[0]);
        runDestination(pair[1]);
    }
    ::close(pair[1]);
    destination.channel = pair[0];
    char line[32] = {};
    if (::read(destination.channel, line, sizeof line - 1) <= 0) {
        std::fprintf(stderr, "the destination did not start\n");
        std::exit(2);
    }
    destination.port = std::atoi(line);
    return destination;
}

void writeSettings(const Destination& destination) {
    // One attempt and no pause after a failed one (interval 0, which also means no time-out).
    writeDeliveryAttributes(1, 0, "No");
    const std::string base = "https://127.0.0.1:" + std::to_string(destination.port);
    Json::Value store(Json::objectValue);
    store["alerts"]["Destination"] = base + "/alerts";
    store["alerts"]["EventFormatType"] = "Event";
    store["alerts"]["EventTypes"].append("Alert");
    store["alerts"]["Context"] = "allocfail";
    store["alerts"]["DeliveryRetryPolicy"] = "RetryForever";
    store["reports"]["Destination"] = base + "/reports";
    store["reports"]["EventFormatType"] = "MetricReport";
    store["reports"]["SubscriptionType"] = "RedfishEvent";
    store["reports"]["DeliveryRetryPolicy"] = "RetryForever";
    store["reports"]["MetricReportDefinitions"][0]["@odata.id"] =
        "/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics";
    writeSubscriptionStore(store);
    Json::Value sse(Json::objectValue);
    sse["client-1"]["Event-type"] = "EventFormatType eq Event";
    sse["client-2"]["Event-type"] = "MetricReportDefinition eq "
                                    "'/redfish/v1/TelemetryService/MetricReportDefinitions/"
                                    "PowerMetrics'";
    writeSseSubscriptions(sse);
}

// The SSE stream server's side: a FIFO reader and a socket listener that drain what comes.
void drainSseFifo() {
    const std::string path = rooted("/var/run/lumenrest/SSE_FIFO");
    ::mkfifo(path.c_str(), 0660);
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char buffer[4096];
    while (fd >= 0 && !g_stopping.load()) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, 100) > 0 && ::read(fd, buffer, sizeof buffer) <= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

void serveSseSocket(int listener) {
    char buffer[4096];
    while (!g_stopping.load()) {
        pollfd ready{listener, POLLIN, 0};
        if (::poll(&ready, 1, 100) <= 0) {
            continue;
        }
        const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        while (client >= 0 && ::read(client, buffer, sizeof buffer) > 0) {
        }
        if (client >= 0) {
            ::close(client);
        }
    }
    ::close(listener);
}

int openSseListener() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(fd, 64) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("SSE listener");
        std::exit(2);
    }
    ::setenv("RFEVENT_SSE_PORT", std::to_string(ntohs(address.sin_port)).c_str(), 1);
    return fd;
}

// Runs count alerts on a thread named "af-alerts"; each message names its phase and number.
// The records are made beforehand: only the plug-in's work runs on the failing thread.
void sendAlerts(AlertFn alert, const char* phase, int count) {
    std::vector<rfevent::sim::AlertRecord> records;
    for (int i = 0; i < count; ++i) {
        rfevent::sim::AlertSpec spec;
        spec.eventId = i;
        spec.severity = 1 + i % 3;
        spec.messageId = "TVK" + std::to_string(1000 + i % 50);
        spec.message = std::string("Alert ") + phase + "-" + std::to_string(i) + ".";
        spec.fqdd = i % 2 ? "System.Embedded.1" : "Fan.Embedded.1";
        spec.args = {"first", "second"};
        records.emplace_back(spec);
    }
    std::thread caller([alert, &records] {
        pthread_setname_np(pthread_self(), "af-alerts");
        int context = 0;
        for (rfevent::sim::AlertRecord& record : records) {
            alert(record.header(), &context);
        }
    });
    caller.join();
}

std::string makeReport(const char* phase, int number) {
    return R"({"@odata.id":"/redfish/v1/TelemetryService/MetricReports/PowerMetrics",)"
           R"("Id":"PowerMetrics","MetricReportDefinition":{"@odata.id":)"
           R"("/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics"},)"
           R"("ReportSequence":")" +
           std::to_string(number) + R"(","MetricValues":[{"MetricId":"SystemPower",)" +
           R"("MetricValue":")" + phase + "-" + std::to_string(number) +
           R"(","Timestamp":"2024-05-01T13:45:10+00:00"}]})";
}

// Writes each report alone into the test report pipe, the next once the previous was read.
bool sendReports(const char* phase, int count) {
    const std::string path = rooted("/var/run/lumenrest-providers/testreportfifo");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        std::perror("test report pipe");
        return false;
    }
    bool ok = true;
    for (int i = 0; i < count && ok; ++i) {
        const std::string report = makeReport(phase, i);
        ok = ::write(fd, report.data(), report.size()) == static_cast<ssize_t>(report.size());
        int pending = 1;
        while (ok && ::ioctl(fd, FIONREAD, &pending) == 0 && pending > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    ::close(fd);
    return ok;
}

bool waitForPipe(const std::string& path) {
    struct stat info;
    for (const auto until = Clock::now() + kDeadline; ::stat(path.c_str(), &info) != 0;) {
        if (Clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Waits until every marked alert and report of phase 2 arrived; false at the deadline.
bool waitForPhase2(const Destination& destination, std::size_t& alerts, std::size_t& reports) {
    for (const auto until = Clock::now() + kDeadline;;) {
        alerts = destination.count("/alerts", "after-");
        reports = destination.count("/reports", "after-");
        if (alerts >= kPhase2Alerts && reports >= kPhase2Reports) {
            return true;
        }
        if (Clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// The level-2 lines of the plug-in's log, each distinct text (numbers dropped) with its count.
void summariseLog(const std::string& path) {
    std::map<std::string, int> lines;
    FILE* log = std::fopen(path.c_str(), "r");
    char line[1024];
    while (log != nullptr && std::fgets(line, sizeof line, log) != nullptr) {
        if (std::strncmp(line, "<2>", 3) != 0) {
            continue;
        }
        std::string text;
        for (const char* c = line; *c != '\0' && *c != '\n' && text.size() < 100; ++c) {
            text += (*c >= '0' && *c <= '9') ? '#' : *c;
        }
        ++lines[text];
    }
    if (log != nullptr) {
        std::fclose(log);
    }
    std::printf("level-2 lines of the plug-in's log:\n");
    for (const auto& [text, count] : lines) {
        std::printf("%7d  %s\n", count, text.c_str());
    }
}

// When deliveries did not resume: one POST of the host's own through libcurl to the same
// destination with the same credentials, and libcurl's message for it (what broke shows).
void probeDestination(const Destination& destination) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        return;
    }
    char message[CURL_ERROR_SIZE] = {};
    const std::string url = "https://127.0.0.1:" + std::to_string(destination.port) + "/probe";
    const std::string certificate = rooted("/etc/certs/CA/certs/host.crt");
    const std::string key = rooted("/flash/data0/cv/private/host.key");
    const std::string bundle = rooted("/etc/certs/pubkey/https_server_ca.crt");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "{}");
    curl_easy_setopt(curl, CURLOPT_SSLCERT, certificate.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, key.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, bundle.c_str());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, message);
    const CURLcode result = curl_easy_perform(curl);
    std::printf("the host's own POST: %d %s\n", static_cast<int>(result), message);
    curl_easy_cleanup(curl);
}

std::string makeRoot() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/rfevent-allocfail.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    return pattern;
}

struct Plugin {
    AlertFn alert = nullptr;
    void (*startThreads)() = nullptr;
};

Plugin loadPlugin(const char* path) {
    void* library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", ::dlerror());
        std::exit(2);
    }
    Plugin plugin;
    plugin.alert = reinterpret_cast<AlertFn>(::dlsym(library, "sendRedFishEventAlert"));
    plugin.startThreads = reinterpret_cast<void (*)()>(::dlsym(library, "Redfish_telemetry_init"));
    if (plugin.alert == nullptr || plugin.startThreads == nullptr) {
        std::fprintf(stderr, "missing entry points in %s\n", path);
        std::exit(2);
    }
    return plugin;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv) {
    const char* pluginPath = argc > 1 ? argv[1] : RFEVENT_PLUGIN_PATH;
    const auto oneIn = static_cast<unsigned>(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 50);
    const unsigned long long seed = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
    auto failures = reinterpret_cast<SwitchFn>(::dlsym(RTLD_DEFAULT, "allocfail_switch"));
    if (failures == nullptr) {
        std::fprintf(stderr, "the allocation-failure shim is not loaded (LD_PRELOAD)\n");
        return 2;
    }
    const std::string root = makeRoot();
    ::setenv("RFEVENT_ROOT", root.c_str(), 1);
    ::setenv("RFEVENT_LOG_FILE", (root + "/log.txt").c_str(), 1);
    ::setenv("RFEVENT_LOG_LEVEL", "2", 0);
    resetSandbox();
    const Destination destination = startDestination();
    writeSettings(destination);
    std::thread fifoReader(drainSseFifo);
    std::thread socketServer(serveSseSocket, openSseListener());

    const Plugin plugin = loadPlugin(pluginPath);
    plugin.startThreads();
    if (!waitForPipe(rooted("/var/run/lumenrest-providers/testreportfifo"))) {
        std::fprintf(stderr, "the plug-in never created its test report pipe\n");
        return 1;
    }
    const auto started = Clock::now();
    failures(oneIn, seed, "rf-,af-");
    std::thread reporter([] { sendReports("before", kPhase1Reports); });
    sendAlerts(plugin.alert, "before", kPhase1Alerts);
    reporter.join();
    const unsigned long long failed = failures(0, 0, nullptr);
    const std::size_t alertsBefore = destination.count("/alerts", "before-");
    const std::size_t reportsBefore = destination.count("/reports", "before-");
    std::printf("phase 1 (1 allocation in %u fails, seed %llu): %llu allocations failed; "
                "%zu of %d alerts and %zu of %d reports delivered in %.1f s\n",
                oneIn, seed, failed, alertsBefore, kPhase1Alerts, reportsBefore, kPhase1Reports,
                secondsSince(started));

    // A destination a metric report failed to reach is marked in the store, and reports to it
    // wait for the once-a-minute probe that finds it back; the store is written afresh, as that
    // probe would leave it, so that phase 2 shows the delivery paths themselves.
    writeSettings(destination);
    const auto resumed = Clock::now();
    std::thread reporter2([] { sendReports("after", kPhase2Reports); });
    sendAlerts(plugin.alert, "after", kPhase2Alerts);
    reporter2.join();
    std::size_t alertsAfter = 0;
    std::size_t reportsAfter = 0;
    const bool delivered = waitForPhase2(destination, alertsAfter, reportsAfter);
    std::printf("phase 2 (no failures): %zu of %d alerts and %zu of %d reports delivered in "
                "%.1f s\n",
                alertsAfter, kPhase2Alerts, reportsAfter, kPhase2Reports, secondsSince(resumed));
    summariseLog(root + "/log.txt");
    if (!delivered) {
        probeDestination(destination);
    }

    g_stopping.store(true);
    fifoReader.join();
    socketServer.join();
    ::close(destination.channel);
    ::waitpid(destination.pid, nullptr, 0);
    if (std::getenv("RFEVENT_KEEP_SANDBOX") == nullptr) {
        (void)!std::system(("rm -rf '" + root + "'").c_str());
    }
    std::printf("%s\n", delivered ? "deliveries resumed" : "deliveries did NOT resume");
    // The plug-in stays loaded: its worker threads run until the process ends, as in the host.
    return delivered ? 0 : 1;
}
