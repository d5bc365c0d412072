// A small host that loads the plug-in the way the REST server does and pushes a fixed load
// through it: alerts through sendRedFishEventAlert and metric reports through the test report
// pipe. Built with LeakSanitizer (the asan preset) or run under valgrind, its exit shows
// whatever the plug-in leaked on the way.
//
//   rfevent_leakcheck [plug-in path] [alerts] [reports]   (defaults: the built plug-in, 10000,
//   1000)
//
// Everything lives under $RFEVENT_ROOT (a fresh temporary folder when unset): one push
// subscription for alerts and one for metric reports, both pointing at a closed loopback port,
// an SSE client for each, a reader on the SSE pipe and a listener on the SSE socket.
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "rfevent/redfish_event.h"

namespace {

std::string root;
std::atomic<bool> stopping{false};

void makeParents(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

void writeFile(const std::string& relative, const std::string& content) {
    const std::string path = root + relative;
    makeParents(path);
    std::ofstream(path, std::ios::trunc) << content;
}

void prepareRoot() {
    // The folders the controller's image provides; the plug-in creates only its pipes.
    for (const char* folder : {"/var/run/lumenrest-providers/", "/var/run/lumenrest/",
                               "/var/run/telemetryservice/", "/var/tmp/telemetry/"}) {
        makeParents(root + folder);
    }
    writeFile("/var/lib/rfevent/attributes.json", R"({
  "Tavik.Embedded.1#RedfishEventing.1#EventEnable": "1",
  "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryAttempts": 1,
  "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds": 0,
  "Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors": {"type": "enumeration", "value": "Yes"},
  "System.Embedded.1#ServerOS.1#HostName": "leakcheck"
})");
    writeFile("/var/lib/lumenrest/redfish_subscriptions/subscriptions.json", R"({
  "alerts": {"Destination": "https://127.0.0.1:1/alerts", "EventFormatType": "Event",
             "EventTypes": ["Alert"], "Context": "leakcheck",
             "HttpHeaders": [{"X-Leakcheck": "1"}]},
  "reports": {"Destination": "https://127.0.0.1:1/reports", "EventFormatType": "MetricReport",
              "SubscriptionType": "RedfishEvent",
              "MetricReportDefinitions": [{"@odata.id": "/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics"}]}
})");
    writeFile("/var/run/lumenrest/sse_subscriptions.json", R"({
  "client-1": {"Event-type": "EventFormatType eq MetricReport", "EventTypes": ["Alert"]},
  "client-2": {"Event-type": "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics'"}
})");
}

// Reads and discards whatever the plug-in writes into the SSE pipe.
void drainSsePipe() {
    const std::string path = root + "/var/run/lumenrest/SSE_FIFO";
    makeParents(path);
    ::mkfifo(path.c_str(), 0660);
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    char buffer[4096];
    while (fd >= 0 && !stopping.load()) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) > 0 && ::read(fd, buffer, sizeof buffer) <= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

// Accepts the plug-in's SSE socket connections and reads each to its end.
void serveSseSocket(int listener) {
    char buffer[4096];
    while (!stopping.load()) {
        pollfd p{listener, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) {
            continue;
        }
        const int client = ::accept(listener, nullptr, nullptr);
        if (client < 0) {
            continue;
        }
        while (::read(client, buffer, sizeof buffer) > 0) {
        }
        ::close(client);
    }
    ::close(listener);
}

int openSseListener() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
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

// One alert record: the fixed part, then its texts, offsets counted from the start.
std::vector<uint8_t> makeAlert(int number) {
    std::vector<uint8_t> record(sizeof(DataEventHeader), 0);
    auto* header = reinterpret_cast<DataEventHeader*>(record.data());
    header->eventId = number;
    header->severity = static_cast<uint16_t>(1 + number % 4);
    header->memberId = number % 3;
    auto append = [&record](const std::string& text) {
        const auto offset = static_cast<uint32_t>(record.size());
        record.insert(record.end(), text.begin(), text.end());
        record.push_back(0);
        return offset;
    };
    const uint32_t messageId = append("TVK" + std::to_string(1000 + number % 50));
    const uint32_t message = append("Leak check alert number " + std::to_string(number) + ".");
    const uint32_t fqdd = append(number % 2 ? "System.Embedded.1" : "Fan.Embedded.1");
    const uint32_t arguments = append("first");
    append("second");
    record.push_back(0);
    header = reinterpret_cast<DataEventHeader*>(record.data());
    header->messageIdOffset = messageId;
    header->messageOffset = message;
    header->fqddOffset = fqdd;
    header->messageArgsOffset = arguments;
    return record;
}

std::string makeReport(int number) {
    return R"({"@odata.id":"/redfish/v1/TelemetryService/MetricReports/PowerMetrics",)"
           R"("Id":"PowerMetrics","MetricReportDefinition":{"@odata.id":)"
           R"("/redfish/v1/TelemetryService/MetricReportDefinitions/PowerMetrics"},)"
           R"("ReportSequence":")" +
           std::to_string(number) +
           R"(","MetricValues":[{"MetricId":"SystemPower","MetricValue":")" +
           std::to_string(200 + number % 17) + R"(","Timestamp":"2024-05-01T13:45:10+00:00"}]})";
}

// Writes each report alone into the test report pipe: the next one only once the thread has
// read the previous one, since every read is taken as one whole report.
bool sendReports(int count) {
    const std::string path = root + "/var/run/lumenrest-providers/testreportfifo";
    struct stat info;
    for (int waited = 0; ::stat(path.c_str(), &info) != 0; ++waited) {
        if (waited > 3000) {
            std::fprintf(stderr, "the plug-in never created %s\n", path.c_str());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const int fd = ::open(path.c_str(), O_WRONLY);
    if (fd < 0) {
        std::perror("test report pipe");
        return false;
    }
    for (int i = 0; i < count; ++i) {
        const std::string report = makeReport(i);
        if (::write(fd, report.data(), report.size()) != static_cast<ssize_t>(report.size())) {
            std::perror("test report write");
            ::close(fd);
            return false;
        }
        int pending = 1;
        while (::ioctl(fd, FIONREAD, &pending) == 0 && pending > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    ::close(fd);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    const char* plugin = argc > 1 ? argv[1] : RFEVENT_PLUGIN_PATH;
    const int alerts = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 10000;
    const int reports = argc > 3 ? static_cast<int>(std::strtol(argv[3], nullptr, 10)) : 1000;

    if (const char* given = std::getenv("RFEVENT_ROOT")) {
        root = given;
    } else {
        char folder[] = "/tmp/rfevent-leakcheck-XXXXXX";
        root = ::mkdtemp(folder);
        ::setenv("RFEVENT_ROOT", root.c_str(), 1);
    }
    ::setenv("RFEVENT_LOG_FILE", (root + "/leakcheck.log").c_str(), 0);
    prepareRoot();
    std::thread fifoReader(drainSsePipe);
    std::thread socketServer(serveSseSocket, openSseListener());

    void* library = ::dlopen(plugin, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", ::dlerror());
        return 2;
    }
    auto init = reinterpret_cast<void (*)()>(::dlsym(library, "Redfish_telemetry_init"));
    auto alert = reinterpret_cast<void (*)(DataEventHeader*, void*)>(
        ::dlsym(library, "sendRedFishEventAlert"));
    if (init == nullptr || alert == nullptr) {
        std::fprintf(stderr, "missing entry points in %s\n", plugin);
        return 2;
    }
    init();

    const auto started = std::chrono::steady_clock::now();
    int context = 0;
    for (int i = 0; i < alerts; ++i) {
        std::vector<uint8_t> record = makeAlert(i);
        alert(reinterpret_cast<DataEventHeader*>(record.data()), &context);
    }
    const auto alertsDone = std::chrono::steady_clock::now();
    const bool reportsSent = sendReports(reports);
    // Let the thread finish the last report before the process ends.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const auto done = std::chrono::steady_clock::now();
    using Seconds = std::chrono::duration<double>;
    std::printf("%d alerts in %.1f s, %d metric reports in %.1f s (root %s)\n", alerts,
                Seconds(alertsDone - started).count(), reports, Seconds(done - alertsDone).count(),
                root.c_str());

    stopping.store(true);
    fifoReader.join();
    socketServer.join();
    // The plug-in stays loaded: its worker threads run until the process ends, as in the host.
    return reportsSent ? 0 : 1;
}
