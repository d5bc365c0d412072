#include "telemetry/report_db.h"
#include "telemetry/report_db_internal.h"

#include <pthread.h>
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/clock.h"
#include "base/fd.h"
#include "base/heap_text.h"
#include "base/log.h"
#include "base/mutex_lock.h"
#include "base/paths.h"
#include "base/sqlite.h"

namespace rfevent {

// Serialises every lookup and guards the connection handle.
pthread_mutex_t reportViewMutex = PTHREAD_MUTEX_INITIALIZER;

// SQL function "GetISODateTime": the local time as text, e.g. "2024-05-01T13:45:10+05:30".
void sqlGetISODateTime(sqlite3_context* context, int argc, sqlite3_value** argv);

namespace {

// The connection of the lookup in progress; only touched with reportViewMutex held.
sqlite3* g_telemetryDb = nullptr;

constexpr int kBusyTimeoutMs = 10000;
constexpr std::size_t kSqlSize = 256;
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kTimeSize = 64;

} // namespace

int intialize_tdb(void) {
    // SQLite opens its files itself, as the lowest free descriptors: never the host's standard
    // streams.
    rfevent::reserveStandardStreams();
    int status = sqlite3_open_v2(rfevent::fixedPath(rfevent::FixedPath::TelemetryDatabase),
                                 &g_telemetryDb, SQLITE_OPEN_READONLY, nullptr);
    if (status != SQLITE_OK) {
        RF_LOG(kLogError, "[%s():%d]Can't open database: %s", sqlite3_errmsg(g_telemetryDb));
        return 1;
    }
    sqlite3_busy_timeout(g_telemetryDb, kBusyTimeoutMs);
    status = sqlite3_create_function(g_telemetryDb, "GetISODateTime", -1, SQLITE_UTF8, nullptr,
                                     sqlGetISODateTime, nullptr, nullptr);
    if (status != SQLITE_OK) {
        RF_LOG(kLogError, "[%s():%d]failed to create GetISODateTime");
        return 1;
    }
    RF_LOG(kLogDebug, "[%s():%d]successfully created GetISODateTime");
    RF_LOG(kLogInfo, "[%s():%d]TDB is initialized");
    return 0;
}

namespace {

// The JSON text of the report at resourcePath on the open connection, or none.
HeapText lookUp(sqlite3* db, const char* sql, const char* resourcePath) {
    sqlite3_stmt* prepared = nullptr;
    int status = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    rfevent::SqliteStatement statement(prepared);
    if (status != SQLITE_OK) {
        RF_LOG(kLogError, "[%s():%d]TDB status: %d, sqlite3_prepare_v3 failure: %s", status,
               sqlite3_errmsg(db));
        return nullptr;
    }
    status = sqlite3_bind_text(statement.get(), 1, resourcePath, -1, SQLITE_TRANSIENT);
    if (status != SQLITE_OK) {
        RF_LOG(kLogError, "[%s():%d]TDB status: %d, sqlite3_bind_text failure: %s", status,
               sqlite3_errmsg(db));
        return nullptr;
    }
    // The connection's busy time-out paces each step; a busy or locked database is simply
    // stepped again.
    status = sqlite3_step(statement.get());
    while (status == SQLITE_BUSY || status == SQLITE_LOCKED) {
        RF_LOG(kLogDebug, "[%s():%d]sql step status: %d\n", status);
        status = sqlite3_step(statement.get());
    }
    const unsigned char* text = sqlite3_column_text(statement.get(), 0);
    return text != nullptr ? heapCopy(reinterpret_cast<const char*>(text)) : HeapText();
}

} // namespace

char* execute_report_views(const char* reportName) {
    MutexLock lock(reportViewMutex);
    char sql[kSqlSize];
    std::snprintf(sql, sizeof sql, "select root from JSON where [@odata.id] = ?");
    // A failed open shows up as a failed prepare. The connection lives for this lookup only.
    (void)intialize_tdb();
    rfevent::SqliteDb db(g_telemetryDb);
    g_telemetryDb = nullptr;

    RF_LOG(kLogInfo, "[%s():%d]report name  [%s]", reportName);
    // The buffer has 256 bytes, and at most 255 of them are written, the terminator included:
    // a longer path keeps its first 254 characters.
    char resourcePath[kPathSize] = {};
    std::snprintf(resourcePath, kPathSize - 1, "/redfish/v1/TelemetryService/MetricReports/%s",
                  reportName);
    RF_LOG(kLogDebug, "[%s():%d]SQL Command: [%s]:[%s]", sql, resourcePath);
    HeapText result = lookUp(db.get(), sql, resourcePath);
    db.reset();
    return result.release();
}

void addColonToZoneOffset(char* text) {
    if (text == nullptr || *text == '\0') {
        return;
    }
    // Shift the tail right until the sign sits three places before the current end, then
    // the colon goes where the last shifted character was. The caller's zeroed buffer
    // supplies the terminator after the longer text.
    std::size_t end = std::strlen(text);
    while (end > 0) {
        if (end >= 3 && (text[end - 3] == '+' || text[end - 3] == '-')) {
            break;
        }
        text[end] = text[end - 1];
        --end;
    }
    text[end] = ':';
}

void sqlGetISODateTime(sqlite3_context* context, int argc, sqlite3_value** argv) {
    (void)argc;
    (void)argv;
    std::time_t now = wallClockSeconds();
    struct tm local = {};
    localtime_r(&now, &local);
    char formatted[kTimeSize] = {};
    std::strftime(formatted, sizeof formatted, "%Y-%m-%dT%H:%M:%S%z", &local);

    char* block = static_cast<char*>(sqlite3_malloc64(kTimeSize));
    if (block == nullptr) {
        return;
    }
    addColonToZoneOffset(formatted);
    std::memcpy(block, formatted, kTimeSize);
    sqlite3_result_text(context, block, -1, sqlite3_free);
}

} // namespace rfevent
