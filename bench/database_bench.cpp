// Report lookups through execute_report_views in a telemetry database of 10,000 reports,
// against a plain open, prepare, bind, step, close of the same query.
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/paths.h"
#include "cases.h"
#include "telemetry/report_db.h"

namespace rfevent::bench {

namespace {

constexpr int kReports = 10000;

std::string reportName(int index) {
    return "Report" + std::to_string(index);
}

void createDatabase(const char* path) {
    std::remove(path);
    sqlite3* db = nullptr;
    if (sqlite3_open(path, &db) != SQLITE_OK) {
        throw std::runtime_error("cannot create the telemetry database");
    }
    sqlite3_exec(db, "CREATE TABLE JSON (root TEXT, \"@odata.id\" TEXT PRIMARY KEY)", nullptr,
                 nullptr, nullptr);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO JSON VALUES (?, ?)", -1, &insert, nullptr);
    for (int i = 0; i < kReports; ++i) {
        const std::string name = reportName(i);
        const std::string uri = "/redfish/v1/TelemetryService/MetricReports/" + name;
        std::string root = "{\"@odata.id\":\"";
        root += uri;
        root += "\",\"Id\":\"";
        root += name;
        root += "\",\"ReportSequence\":\"";
        root += std::to_string(i);
        root += "\",\"MetricValues\":[";
        root.append(600, ' ');
        root += "]}";
        sqlite3_bind_text(insert, 1, root.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, uri.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error("cannot fill the telemetry database");
    }
    sqlite3_close(db);
}

// The shortest code for the same lookup.
char* plainLookup(const char* path, const char* name) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* statement = nullptr;
    char* result = nullptr;
    if (sqlite3_prepare_v2(db, "select root from JSON where [@odata.id] = ?", -1, &statement,
                           nullptr) == SQLITE_OK) {
        char uri[256];
        std::snprintf(uri, sizeof uri, "/redfish/v1/TelemetryService/MetricReports/%s", name);
        sqlite3_bind_text(statement, 1, uri, -1, SQLITE_TRANSIENT);
        if (sqlite3_step(statement) == SQLITE_ROW) {
            result = strdup(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return result;
}

} // namespace

void runDatabaseCases(const Context& context, Table& table) {
    const char* path = fixedPath(FixedPath::TelemetryDatabase);
    createDatabase(path);
    std::vector<std::string> names;
    names.reserve(1000);
    for (int i = 0; i < 1000; ++i) {
        names.push_back(reportName((i * 7919) % kReports)); // spread over the whole table
    }
    std::size_t pluginNext = 0;
    std::size_t floorNext = 0;
    auto expectReport = [](char* report) {
        if (report == nullptr) {
            throw std::runtime_error("database case: a report was not found");
        }
        std::free(report);
    };
    Comparison result = compareAlternating(
        [&] { expectReport(execute_report_views(names[pluginNext++ % names.size()].c_str())); },
        [&] { expectReport(plainLookup(path, names[floorNext++ % names.size()].c_str())); },
        context.schedule(9, 200));
    table.add({"report lookup in a database of 10,000 reports", result.plugin, result.floor,
               Unit::Seconds, true, kProtocolBound});
}

} // namespace rfevent::bench
