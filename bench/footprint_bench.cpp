// Footprint of the shipped plug-in: stripped sizes, resident memory after 100,000 alerts
// against after 1,000, and the threads Redfish_telemetry_init adds. Memory and threads are
// measured in a child process that loads the plug-in with dlopen, as the host does.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "base/paths.h"
#include "cases.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"

namespace rfevent::bench {

namespace {

constexpr int kFirstAlerts = 1000;
constexpr int kAllAlerts = 100000;
constexpr int kWorkerThreads = 5; // the thread table

double strippedSize(const std::string& strip, const std::string& library,
                    const std::string& scratch) {
    int status = 0;
    runProgram({strip, "-o", scratch, library}, &status);
    struct stat info {};
    if (status != 0 || ::stat(scratch.c_str(), &info) != 0) {
        throw std::runtime_error(strip + " failed on " + library);
    }
    std::remove(scratch.c_str());
    return static_cast<double>(info.st_size);
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

int threadCount() {
    int count = 0;
    if (DIR* tasks = ::opendir("/proc/self/task")) {
        while (dirent* entry = ::readdir(tasks)) {
            count += entry->d_name[0] != '.' ? 1 : 0;
        }
        ::closedir(tasks);
    }
    return count;
}

void* loadPlugin(const Context& context) {
    void* plugin = ::dlopen(context.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", ::dlerror());
        std::_Exit(3);
    }
    return plugin;
}

// Alerts through the whole path without the network: a push subscriber whose deliveries are
// switched off by a retry count of 0 (the handle is still set up and released), and an SSE
// subscriber whose frame goes through the SSE FIFO.
int residentMemoryChild(const Context& context) {
    void* plugin = loadPlugin(context);
    using Alert = void (*)(DataEventHeader*, void*);
    auto send = reinterpret_cast<Alert>(::dlsym(plugin, "sendRedFishEventAlert"));
    DataEventHeader* alert = sampleAlert();
    int eventContext = 0;
    for (int i = 0; i < kFirstAlerts; ++i) {
        send(alert, &eventContext);
    }
    std::printf("rss_first %ld\n", residentKiB());
    for (int i = kFirstAlerts; i < kAllAlerts; ++i) {
        send(alert, &eventContext);
    }
    std::printf("rss_all %ld\n", residentKiB());
    std::fflush(stdout);
    return 0;
}

int threadsChild(const Context& context) {
    void* plugin = loadPlugin(context);
    const int before = threadCount();
    reinterpret_cast<void (*)()>(::dlsym(plugin, "Redfish_telemetry_init"))();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::printf("threads_added %d\n", threadCount() - before);
    std::fflush(stdout);
    std::_Exit(0); // the worker threads are never stopped; leave without unloading
}

void sizes(const Context& context, Table& table) {
    const std::string scratch = context.root + "/stripped.so";
    table.add({"stripped size of the plug-in, x86-64",
               strippedSize("strip", context.plugin, scratch), 0, Unit::Bytes, false});
    if (context.armhfPlugin.empty()) {
        std::fprintf(stderr, "  (armhf plug-in not built: run scripts/bench.sh for it)\n");
        return;
    }
    table.add({"stripped size of the plug-in, armhf",
               strippedSize("arm-linux-gnueabihf-strip", context.armhfPlugin, scratch), 0,
               Unit::Bytes, false, kArmhfSizeBound});
}

void residentMemory(const Context& context, Table& table) {
    testkit::writeDeliveryAttributes(0, 5, "Yes");
    Json::Value store(Json::objectValue);
    store["1"]["Destination"] =
        "https://127.0.0.1:" + std::to_string(testkit::HttpsServer::closedLoopbackPort()) + "/";
    store["1"]["EventTypes"][0] = "Alert";
    store["1"]["Context"] = "bench";
    testkit::writeSubscriptionStore(store);
    Json::Value sse(Json::objectValue);
    sse["sse0"]["EventTypes"][0] = "Alert";
    testkit::writeSseSubscriptions(sse);
    FifoDrain drain(fixedPath(FixedPath::SseFifo));

    int status = 0;
    const auto values = parseKeyValues(runProgram({context.self, "--child", "rss"}, &status));
    if (status != 0 || values.count("rss_first") == 0 || values.count("rss_all") == 0 ||
        drain.bytes() == 0) {
        throw std::runtime_error("resident memory child failed");
    }
    table.add({"resident memory after 100,000 alerts vs after 1,000", values.at("rss_all") * 1024,
               values.at("rss_first") * 1024, Unit::Bytes, true, kFlatBound});
    testkit::removeFile(testkit::rooted("/var/run/lumenrest/sse_subscriptions.json"));
}

void threads(const Context& context, Table& table) {
    int status = 0;
    const auto values = parseKeyValues(runProgram({context.self, "--child", "threads"}, &status));
    if (status != 0 || values.count("threads_added") == 0) {
        throw std::runtime_error("thread count child failed");
    }
    table.add({"threads added by Redfish_telemetry_init vs the thread table",
               values.at("threads_added"), kWorkerThreads, Unit::Count, true, 1.0});
}

} // namespace

int runFootprintChild(const std::string& name, const Context& context) {
    if (name == "rss") {
        return residentMemoryChild(context);
    }
    if (name == "threads") {
        return threadsChild(context);
    }
    return 2;
}

void runFootprintCases(const Context& context, Table& table) {
    sizes(context, table);
    residentMemory(context, table);
    // The store stays, so the probe thread finds work and keeps running.
    threads(context, table);
}

} // namespace rfevent::bench
