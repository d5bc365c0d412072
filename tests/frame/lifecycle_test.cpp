// Load, unload and the thread table, through the real plug-in loaded with dlopen.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>

#include "frame/lifecycle_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "rfevent/redfish_event.h"

using namespace rfevent;

using namespace rfevent::testkit;

namespace {

int threadCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

// Names of the plug-in's worker threads in this process: the plug-in names each one "rf-...".
// Threads of the runtime (an emulator's or a sanitizer's helpers, a joined thread that the
// kernel has not reaped yet) keep other names, so they are not counted.
std::multiset<std::string> pluginThreadNames() {
    std::multiset<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind("rf-", 0) == 0) {
            names.insert(name);
        }
    }
    closedir(dir);
    return names;
}

int g_started[rfevent::kThreadCount];

int recordStart(rfevent::ThreadSlot* slot) {
    ++g_started[slot - rfevent::g_threadSlots];
    return 0;
}

int failStart(rfevent::ThreadSlot* slot) {
    ++g_started[slot - rfevent::g_threadSlots];
    return 7;
}

class LifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        writeAttributes(Json::Value(Json::objectValue));
    }
};

TEST_F(LifecycleTest, EmptyEntryIsSkippedWithoutALogLine) {
    const rfevent::ThreadStartFn table[rfevent::kThreadCount] = {recordStart, nullptr, recordStart,
                                                                 recordStart, recordStart};
    LogCapture log;
    rfevent::startThreadTable(table, rfevent::g_threadSlots, rfevent::kThreadCount);
    EXPECT_EQ(g_started[0] + g_started[2] + g_started[3] + g_started[4], 4);
    EXPECT_EQ(g_started[1], 0);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(LifecycleTest, FailedStartIsLoggedWithItsSlotAndTheWalkGoesOn) {
    const rfevent::ThreadStartFn table[rfevent::kThreadCount] = {
        recordStart, recordStart, failStart, recordStart, recordStart};
    LogCapture log;
    rfevent::startThreadTable(table, rfevent::g_threadSlots, rfevent::kThreadCount);
    for (int count : g_started) {
        EXPECT_EQ(count, 1);
    }
    EXPECT_EQ(log.count(2, "]Thread creation failed- 2"), 1) << log.dump();
    EXPECT_EQ(log.countAny("Thread creation failed"), 1);
}

TEST_F(LifecycleTest, UnloadWithoutStartOnlyCleansUpLibcurl) {
    int before = threadCount();
    LogCapture log;
    void* plugin = dlopen(RFEVENT_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    EXPECT_TRUE(log.contains(4, "Entering RedfishEventPluginInit Function"));
    EXPECT_TRUE(log.contains(4, "]curl_global_init Success"));
    EXPECT_EQ(threadCount(), before);
    log.clear();
    ASSERT_EQ(dlclose(plugin), 0);
    EXPECT_TRUE(log.contains(4, "Entering RedfishEventPluginCleanup Function")) << log.dump();
    EXPECT_TRUE(log.contains(4, "Exiting RedfishEventPluginCleanup Function"));
    EXPECT_EQ(threadCount(), before);
    // The library is really gone: a no-load open finds nothing.
    EXPECT_EQ(dlopen(RFEVENT_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// What a host does: load, start the threads once, send alerts whatever the eventing switch
// says, and unload. The threads keep running and the library stays mapped for them.
TEST_F(LifecycleTest, HostLoadsStartsSendsAndUnloadsWithoutCrashing) {
    void* plugin = dlopen(RFEVENT_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    auto init = reinterpret_cast<void (*)()>(dlsym(plugin, "Redfish_telemetry_init"));
    auto send =
        reinterpret_cast<void (*)(DataEventHeader*, void*)>(dlsym(plugin, "sendRedFishEventAlert"));
    ASSERT_NE(init, nullptr);
    ASSERT_NE(send, nullptr);
    for (const char* hidden : {"sendRedFishEvent", "sendHTTPPacketByCURL", "send_to_sse"}) {
        EXPECT_EQ(dlsym(plugin, hidden), nullptr) << hidden << " must not be exported";
    }
    // With a store in place the second invalid-destination thread keeps running (it ends for
    // good when the store is missing), so all five threads are there to count.
    writeSubscriptionStore(Json::Value(Json::objectValue));
    EXPECT_TRUE(pluginThreadNames().empty());
    init();
    // The names are set before Redfish_telemetry_init returns.
    EXPECT_EQ(pluginThreadNames(),
              (std::multiset<std::string>{"rf-invdest1", "rf-invdest2", "rf-sseinfra",
                                          "rf-telemetry", "rf-testreport"}));

    DataEventHeader header{};
    header.severity = 3;
    int context = 0;
    const Json::Value values[] = {"1", "0", "", "Enabled", Json::Value(), 1};
    for (const auto& value : values) {
        if (value.isNull()) {
            removeAttribute("Tavik.Embedded.1#RedfishEventing.1#EventEnable");
        } else {
            setAttribute("Tavik.Embedded.1#RedfishEventing.1#EventEnable", value);
        }
        send(&header, &context);
    }
    EXPECT_EQ(dlclose(plugin), 0);
    // Pinned: still loaded for its threads.
    EXPECT_NE(dlopen(RFEVENT_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

} // namespace
