#include "frame/lifecycle_internal.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include "base/fd.h"
#include "base/guard.h"
#include "base/log.h"
#include "delivery/session_cache.h"
#include "delivery/tls_credentials.h"
#include "rfevent/redfish_event.h"
#include "subscriptions/invalid_dest.h"
#include "telemetry/notify_thread.h"
#include "telemetry/replay.h"
#include "telemetry/test_report_thread.h"

namespace rfevent {

RunFlag g_telemetryNotifyFlag{1};
RunFlag g_testReportFlag{1};
RunFlag g_sseInfraFlag{1};

ThreadSlot g_threadSlots[kThreadCount];

namespace {

// Creates the thread into its slot and names it (at most 15 characters; operators see the name
// in top -H and /proc/<pid>/task/*/comm). A failing pthread_create is only recorded in the slot:
// the start function reports success in every case.
int createInto(ThreadSlot* slot, void* (*body)(void*), const char* name, RunFlag* flag = nullptr) {
    slot->result = pthread_create(&slot->thread, nullptr, body, flag);
    if (slot->result == 0) {
        pthread_setname_np(slot->thread, name);
    }
    return 0;
}

int startTelemetryNotify(ThreadSlot* slot) {
    g_telemetryNotifyFlag.store(0, std::memory_order_relaxed);
    return createInto(slot, TelemetryServiceNotifyWaitThread, "rf-telemetry",
                      &g_telemetryNotifyFlag);
}

int startTestReport(ThreadSlot* slot) {
    g_testReportFlag.store(0, std::memory_order_relaxed);
    return createInto(slot, RedfishTestMetricReportThread, "rf-testreport", &g_testReportFlag);
}

int startSseInfra(ThreadSlot* slot) {
    g_sseInfraFlag.store(0, std::memory_order_relaxed);
    return createInto(slot, RedfishSSEInfraNotifyThread, "rf-sseinfra", &g_sseInfraFlag);
}

int startInvalidDest1(ThreadSlot* slot) {
    return createInto(slot, InvalidDestHandlingThread1, "rf-invdest1");
}

int startInvalidDest2(ThreadSlot* slot) {
    return createInto(slot, InvalidDestHandlingThread2, "rf-invdest2");
}

// Once worker threads run the library's code, the library must stay mapped: a later dlclose by
// the host would otherwise pull the code from under them. Re-opening ourselves with
// RTLD_NODELETE pins the library; before the threads start, unloading works as usual.
void pinLibraryInMemory() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&pinLibraryInMemory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return;
    }
    void* self = dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    if (self != nullptr) {
        dlclose(self); // drops the extra reference; the NODELETE mark stays
    }
}

} // namespace

const ThreadStartFn g_threadTable[kThreadCount] = {
    startTelemetryNotify, startTestReport, startSseInfra, startInvalidDest1, startInvalidDest2,
};

void startThreadTable(const ThreadStartFn* table, ThreadSlot* slots, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (table[i] == nullptr) {
            continue;
        }
        if (table[i](&slots[i]) != 0) {
            RF_LOG(kLogError, "[%s():%d]Thread creation failed- %d\n", static_cast<int>(i));
        }
    }
}

} // namespace rfevent

extern "C" {

RFEVENT_API void RedfishEventPluginInit(void) {
    RF_ENTER();
    // libcurl's initialisation may open a file of its own (the key log): never as a standard
    // stream of a host that closed them.
    rfevent::reserveStandardStreams();
    if (curl_global_init(CURL_GLOBAL_ALL) != 0) { // SSL and Win32 initialisation, value 3
        RF_LOG(rfevent::kLogError, "[%s():%d]curl_global_init failed");
    } else {
        RF_LOG(rfevent::kLogDebug, "[%s():%d]curl_global_init Success");
        if (!rfevent::prepareTlsLibrary()) {
            RF_LOG(rfevent::kLogError, "[%s():%d]TLS library set-up failed");
        }
        rfevent::createSessionCache();
    }
    RF_EXIT();
}

RFEVENT_API void RedfishEventPluginCleanup(void) {
    RF_ENTER();
    // Worker threads are never stopped: once one ran, a POST may still use the cache.
    if (!rfevent::g_workersStarted.load(std::memory_order_relaxed)) {
        rfevent::releaseSessionCache();
    }
    curl_global_cleanup();
    RF_EXIT();
}

RFEVENT_API void Redfish_telemetry_init(void) {
    rfevent::guarded(RF_HERE, "worker start aborted", [] {
        rfevent::pinLibraryInMemory();
        rfevent::g_workersStarted.store(true, std::memory_order_relaxed);
        rfevent::startThreadTable(rfevent::g_threadTable, rfevent::g_threadSlots,
                                  rfevent::kThreadCount);
    });
}

} // extern "C"
