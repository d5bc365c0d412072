// Report lookups in a real SQLite database built under the sandbox root.
#include "telemetry/report_db.h"
#include "telemetry/report_db_internal.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace {

using rfevent::testkit::LogCapture;

const std::string kReportsPrefix = "/redfish/v1/TelemetryService/MetricReports/";

std::string databasePath() {
    return rfevent::fixedPath(rfevent::FixedPath::TelemetryDatabase);
}

// Stand-in for the telemetry service's own function, so the writer can create views.
void writerDateTime(sqlite3_context* context, int, sqlite3_value**) {
    sqlite3_result_text(context, "writer", -1, SQLITE_STATIC);
}

sqlite3* openWriter() {
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(databasePath().c_str(), &db));
    sqlite3_create_function(db, "GetISODateTime", -1, SQLITE_UTF8, nullptr, writerDateTime, nullptr,
                            nullptr);
    return db;
}

void exec(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error))
        << (error ? error : "") << " in " << sql;
}

// The "JSON" table the lookups read.
void createReportTable(const std::vector<std::pair<std::string, std::string>>& rows) {
    sqlite3* db = openWriter();
    exec(db, "CREATE TABLE JSON (root TEXT, \"@odata.id\" TEXT)");
    for (const auto& [path, root] : rows) {
        sqlite3_stmt* statement = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "INSERT INTO JSON VALUES (?, ?)", -1,
                                                &statement, nullptr));
        sqlite3_bind_text(statement, 1, root.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 2, path.c_str(), -1, SQLITE_TRANSIENT);
        ASSERT_EQ(SQLITE_DONE, sqlite3_step(statement));
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
}

// "JSON" as a view whose root is the time "GetISODateTime" gives, as the service's views do.
void createTimeView(const std::string& call) {
    sqlite3* db = openWriter();
    exec(db, "CREATE TABLE reports (path TEXT)");
    exec(db, "INSERT INTO reports VALUES ('" + kReportsPrefix + "Clock')");
    exec(db, "CREATE VIEW JSON AS SELECT " + call + " AS root, path AS \"@odata.id\" FROM reports");
    sqlite3_close(db);
}

std::string lookup(const std::string& name) {
    char* text = execute_report_views(name.c_str());
    std::string result = text ? text : "<null>";
    std::free(text);
    return result;
}

class ReportDbTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }
};

TEST_F(ReportDbTest, LooksUpRootByResourcePath) {
    createReportTable({{kReportsPrefix + "Rpt1", R"({"Id":"Rpt1"})"},
                       {kReportsPrefix + "Rpt2", R"({"Id":"Rpt2"})"}});
    LogCapture log;
    EXPECT_EQ(R"({"Id":"Rpt1"})", lookup("Rpt1"));
    EXPECT_EQ(R"({"Id":"Rpt2"})", lookup("Rpt2"));
    EXPECT_TRUE(log.containsAny("SQL Command: [select root from JSON where [@odata.id] = ?]:[" +
                                kReportsPrefix + "Rpt1]"));
    EXPECT_TRUE(log.contains(5, "TDB is initialized"));
    EXPECT_TRUE(log.contains(4, "successfully created GetISODateTime"));
}

TEST_F(ReportDbTest, OnlyTheFirstMatchingRowIsUsed) {
    createReportTable({{kReportsPrefix + "Twice", "first"}, {kReportsPrefix + "Twice", "second"}});
    EXPECT_EQ("first", lookup("Twice"));
}

TEST_F(ReportDbTest, ReportNotInDatabaseGivesNull) {
    createReportTable({{kReportsPrefix + "Rpt1", "{}"}});
    EXPECT_EQ("<null>", lookup("Other"));
}

TEST_F(ReportDbTest, NullRootGivesNull) {
    sqlite3* db = openWriter();
    exec(db, "CREATE TABLE JSON (root TEXT, \"@odata.id\" TEXT)");
    exec(db, "INSERT INTO JSON VALUES (NULL, '" + kReportsPrefix + "Empty')");
    sqlite3_close(db);
    EXPECT_EQ("<null>", lookup("Empty"));
}

TEST_F(ReportDbTest, AbsentDatabaseGivesNullAndLogsOpenAndPrepareFailures) {
    LogCapture log;
    EXPECT_EQ("<null>", lookup("Rpt1"));
    EXPECT_TRUE(log.contains(2, "Can't open database: "));
    EXPECT_TRUE(log.containsAny("sqlite3_prepare_v3 failure: "));
    EXPECT_FALSE(rfevent::testkit::fileExists(databasePath())); // read-only: never created
    EXPECT_EQ(1, intialize_tdb());
}

TEST_F(ReportDbTest, DatabaseWithoutJsonTableGivesNull) {
    sqlite3* db = openWriter();
    exec(db, "CREATE TABLE other (x TEXT)");
    sqlite3_close(db);
    LogCapture log;
    EXPECT_EQ("<null>", lookup("Rpt1"));
    EXPECT_TRUE(log.containsAny("sqlite3_prepare_v3 failure: no such table: JSON"));
}

// 255 bytes are written into the 256-byte buffer, the terminator included: 254 characters.
TEST_F(ReportDbTest, NameLongerThanThePathBufferIsCutTo254Characters) {
    std::string name(300, 'n');
    std::string cutPath = (kReportsPrefix + name).substr(0, 254);
    createReportTable({{cutPath, "cut"},
                       {(kReportsPrefix + name).substr(0, 255), "one more"},
                       {kReportsPrefix + name, "whole"}});
    EXPECT_EQ("cut", lookup(name));
}

TEST_F(ReportDbTest, PathOf254CharactersIsKeptWhole) {
    std::string name(254 - kReportsPrefix.size(), 'n');
    createReportTable({{kReportsPrefix + name, "whole"}});
    EXPECT_EQ("whole", lookup(name));
}

TEST_F(ReportDbTest, ViewCallingGetIsoDateTimeInUtcGivesColonOffset) {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    createTimeView("GetISODateTime()");
    std::string text = lookup("Clock");
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+00:00)")))
        << text;
}

TEST_F(ReportDbTest, GetIsoDateTimeTakesAnyArgumentsAndKeepsTheLocalOffset) {
    ::setenv("TZ", "IST-5:30", 1);
    ::tzset();
    createTimeView("GetISODateTime(1, 'x', NULL)");
    std::string text = lookup("Clock");
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+05:30)")))
        << text;
}

TEST_F(ReportDbTest, NegativeOffsetGetsItsColon) {
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    createTimeView("GetISODateTime()");
    std::string text = lookup("Clock");
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(.*T\d\d:\d\d:\d\d-05:00)"))) << text;
}

TEST(AddColonToZoneOffset, InsertsTheColonBeforeTheLastTwoDigits) {
    char plus[64] = "2024-05-01T13:45:10+0530";
    addColonToZoneOffset(plus);
    EXPECT_STREQ("2024-05-01T13:45:10+05:30", plus);
    char minus[64] = "-0400";
    addColonToZoneOffset(minus);
    EXPECT_STREQ("-04:00", minus);
}

TEST(AddColonToZoneOffset, EmptyAndNullAreLeftAlone) {
    char empty[8] = {};
    addColonToZoneOffset(empty);
    EXPECT_STREQ("", empty);
    addColonToZoneOffset(nullptr);
}

TEST(AddColonToZoneOffset, WithoutSignTheScanStopsAtTheStart) {
    char text[8] = "ab";
    addColonToZoneOffset(text);
    EXPECT_STREQ(":ab", text);
}

TEST_F(ReportDbTest, BusyDatabaseIsWaitedFor) {
    createReportTable({{kReportsPrefix + "Rpt1", "late"}});
    sqlite3* writer = openWriter();
    exec(writer, "BEGIN EXCLUSIVE");
    // Taken before the releasing thread exists: the commit comes at least 300 ms after this
    // however late the thread or this one gets the processor.
    auto started = std::chrono::steady_clock::now();
    std::thread release([writer] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
    });
    EXPECT_EQ("late", lookup("Rpt1"));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(250));
    release.join();
    sqlite3_close(writer);
}

TEST_F(ReportDbTest, LookupsFromSeveralThreadsAreSerialised) {
    createReportTable({{kReportsPrefix + "A", "a"}, {kReportsPrefix + "B", "b"}});
    std::vector<std::thread> threads;
    std::vector<std::string> results(8);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t, &results] {
            for (int k = 0; k < 20; ++k) {
                std::string got = lookup(t % 2 ? "A" : "B");
                if (got != (t % 2 ? "a" : "b")) {
                    results[t] = got;
                    return;
                }
            }
            results[t] = "ok";
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& result : results) {
        EXPECT_EQ("ok", result);
    }
}

} // namespace
