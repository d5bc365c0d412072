// Timestamps after 2038-01-19, when a 32-bit time_t has wrapped: an alert through the entry
// point to a push subscriber and an SSE client, a metric report from the telemetry database and
// the serial-log and CPU-register reports, with the clock at 2040-02-29T12:00:00 in a zone
// five and a half hours east of UTC. On the 32-bit target this runs under the emulator.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "base/clock_internal.h"
#include "base/paths.h"
#include "events/alert_record.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "harness/sse_receiver.h"
#include "rfevent/redfish_event.h"
#include "telemetry/log_reports.h"
#include "telemetry/log_reports_internal.h"
#include "telemetry/report_db.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

// 2040-02-29T06:30:00 UTC, 2040-02-29T12:00:00 at +05:30; past the largest 32-bit time_t.
constexpr int64_t kLeapDay2040 = 2214109800;
constexpr int64_t kLargest32BitTime = 2147483647;
static_assert(kLeapDay2040 > kLargest32BitTime, "the test time lies after 2038-01-19");

int leapDay2040(struct timeval* now) {
    now->tv_sec = static_cast<std::time_t>(kLeapDay2040);
    now->tv_usec = 123456;
    return 0;
}

const std::string kReportPath = "/redfish/v1/TelemetryService/MetricReports/Leap";

class After2038Test : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sizeof(std::time_t), 8u) << "this build's time_t wraps in 2038";
        tk::resetSandbox();
        const char* zone = std::getenv("TZ");
        savedZone_ = zone != nullptr ? std::make_unique<std::string>(zone) : nullptr;
        ::setenv("TZ", "IST-5:30", 1);
        ::tzset();
        g_wallClock = leapDay2040;
    }
    void TearDown() override {
        g_wallClock = savedClock_;
        if (savedZone_ != nullptr) {
            ::setenv("TZ", savedZone_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

    WallClock savedClock_ = g_wallClock;
    std::unique_ptr<std::string> savedZone_;
};

// The telemetry service's stand-in for its own function, so that the writer can create a view
// that calls it; the plug-in's lookup registers the real one.
void writerDateTime(sqlite3_context* context, int, sqlite3_value**) {
    sqlite3_result_text(context, "writer", -1, SQLITE_STATIC);
}

// "JSON" as a view whose report text carries the time "GetISODateTime" gives.
void createReportView() {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(fixedPath(FixedPath::TelemetryDatabase), &db));
    sqlite3_create_function(db, "GetISODateTime", -1, SQLITE_UTF8, nullptr, writerDateTime, nullptr,
                            nullptr);
    const std::string sql =
        "CREATE TABLE reports (path TEXT);"
        "INSERT INTO reports VALUES ('" +
        kReportPath +
        "');"
        "CREATE VIEW JSON AS SELECT '{\"Id\":\"Leap\",\"Timestamp\":\"' || GetISODateTime() || "
        "'\"}' AS root, path AS \"@odata.id\" FROM reports;";
    char* error = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error))
        << (error != nullptr ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
}

TEST_F(After2038Test, AlertCarriesTheLocalTimeAfter2038) {
    tk::TestPki pki = tk::generateTestPki(tk::rooted("/pki"));
    tk::installClientCredentials(pki, tk::sandboxRoot(), true);
    tk::writeDeliveryAttributes(1, 0, "No", "bmc-host"); // eventing on, one attempt
    tk::HttpsServer server(pki);
    Json::Value store(Json::objectValue);
    store["1"]["Destination"] = server.url("/alerts");
    store["1"]["EventTypes"].append("Alert");
    tk::writeSubscriptionStore(store);
    Json::Value sse(Json::objectValue);
    sse["sse0"]["EventTypes"].append("Alert");
    tk::writeSseSubscriptions(sse);
    tk::SseReceiverOptions options;
    options.fifoPath = tk::rooted("/var/run/lumenrest/SSE_FIFO");
    tk::SseReceiver receiver(options);

    tk::AlertRecord record(tk::fullAlert());
    int context = 0;
    sendRedFishEventAlert(record.header(), &context);

    ASSERT_EQ(server.requestCount(), 1u);
    Json::Value pushed = tk::parseJson(server.requests()[0].body);
    EXPECT_EQ("2040-02-29T12:00:00+0530", pushed["Events"][0]["EventTimestamp"].asString());
    receiver.stop();
    std::vector<std::string> frames = receiver.fifoMessages();
    ASSERT_EQ(frames.size(), 1u);
    const std::string& frame = frames[0];
    std::size_t json = frame.find(">:");
    ASSERT_NE(json, std::string::npos) << frame;
    ASSERT_GE(frame.size(), json + 2 + 5) << frame;
    Json::Value streamed = tk::parseJson(frame.substr(json + 2, frame.size() - 5 - (json + 2)));
    EXPECT_EQ("2040-02-29T12:00:00+0530", streamed["Events"][0]["EventTimestamp"].asString());
}

TEST_F(After2038Test, MetricReportFromTheDatabaseCarriesTheLocalTimeAfter2038) {
    createReportView();
    char* text = execute_report_views("Leap");
    ASSERT_NE(text, nullptr);
    Json::Value report = tk::parseJson(text);
    std::free(text);
    EXPECT_EQ("2040-02-29T12:00:00+05:30", report["Timestamp"].asString());
}

TEST_F(After2038Test, SerialLogAndCpuRegisterReportsCarryTheUtcTimeAfter2038) {
    for (const char* type : {"SerialLog", "CPURegisters"}) {
        Json::Value report = tk::parseJson(GenerateLogEntryJsonForTelemetry("x", type));
        EXPECT_EQ("2040-02-29T06:30:00.456Z", report["Timestamp"].asString()) << type;
    }
}

} // namespace
