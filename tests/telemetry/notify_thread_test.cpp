// The telemetry pipe reader: real FIFO, byte patterns as the telemetry service writes them,
// a real telemetry database and captures, documents recorded at the channel table.
#include "harness/wait.h"
#include "telemetry/notify_thread.h"
#include "telemetry/notify_thread_internal.h"
#include "telemetry/recording_channels.h"
#include "telemetry/running_pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/paths.h"
#include "base/pipe_thread_internal.h"
#include "frame/lifecycle_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "telemetry/report_db.h"

using namespace rfevent;

namespace {

using rfevent::TelemetryPipeState;
using rfevent::testkit::LogCapture;

const std::string kReportsPrefix = "/redfish/v1/TelemetryService/MetricReports/";

using rfevent::testkit::RecordingChannels;

// What the parser led to, in order: every lookup, seen in the lookup's own log line, and every
// document the recording channels were handed.
class Recorder {
  public:
    Recorder() {
        channels.beforeRecord = [this] { syncLookups(); };
    }
    std::vector<std::string> snapshot() {
        syncLookups();
        return channels.events();
    }
    RecordingChannels channels;

  private:
    void syncLookups() {
        std::lock_guard<std::mutex> lock(mutex_);
        static const std::string kHead = "report name  [";
        const std::vector<std::string> lines = log_.lines();
        for (; seen_ < lines.size(); ++seen_) {
            const std::string& line = lines[seen_];
            const std::size_t at = line.find(kHead);
            if (at != std::string::npos) {
                const std::size_t start = at + kHead.size();
                RecordingChannels::addEvent("lookup:" +
                                            line.substr(start, line.rfind(']') - start));
            }
        }
    }
    std::mutex mutex_;
    LogCapture log_;
    std::size_t seen_ = 0;
};

// Every name the tests below announce as a report has a report "report-<name>" in the
// telemetry database, except "Gone".
const char* const kStoredNames[] = {
    "Rpt1",    "A",   "B",    "CPURegistersX", "Report1", "RepFoo", "RepX", "Y",  "Foo",
    "ReportZ", "Ab1", "Here", "Bad",           "Good",    "Longer", "S1",   "Rpt"};

void storeReports(const std::vector<std::pair<std::string, std::string>>& reports) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_open(rfevent::fixedPath(rfevent::FixedPath::TelemetryDatabase), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE JSON (root TEXT, \"@odata.id\" TEXT)",
                                      nullptr, nullptr, nullptr));
    sqlite3_stmt* insert = nullptr;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_prepare_v2(db, "INSERT INTO JSON VALUES (?, ?)", -1, &insert, nullptr));
    for (const auto& [name, root] : reports) {
        sqlite3_bind_text(insert, 1, root.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, (kReportsPrefix + name).c_str(), -1, SQLITE_TRANSIENT);
        ASSERT_EQ(SQLITE_DONE, sqlite3_step(insert));
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_close(db);
}

void storeTestReports() {
    std::vector<std::pair<std::string, std::string>> reports;
    for (const char* name : kStoredNames) {
        reports.emplace_back(name, std::string("report-") + name);
    }
    storeReports(reports);
}

// The captures the two built-in reports are built from: each command publishes a report.
void writeCaptures() {
    rfevent::testkit::writeFile(rfevent::fixedPath(rfevent::FixedPath::SerialLogCapture), "");
    rfevent::testkit::writeFile(rfevent::fixedPath(rfevent::FixedPath::CpuRegisterCapture), "R");
}

std::string fifoPath() {
    return rfevent::fixedPath(rfevent::FixedPath::TelemetryFifo);
}

class NotifyParserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        storeTestReports();
        writeCaptures();
        recorder_ = std::make_unique<Recorder>();
        state_ = std::make_unique<TelemetryPipeState>();
        // Our writer end exists first, so the product's blocking open returns at once.
        ASSERT_EQ(0, mkfifo(fifoPath().c_str(), 0660));
        writer_ = open(fifoPath().c_str(), O_RDWR);
        ASSERT_GE(writer_, 0);
        reader_ = rfevent::openPipe(rfevent::telemetryPipe(*state_)).release();
        ASSERT_GE(reader_, 0);
    }
    void TearDown() override {
        close(reader_);
        close(writer_);
        recorder_.reset();
    }

    // One write by the telemetry service, then one read by the product.
    void deliver(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(writer_, bytes.data(), bytes.size()));
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  rfevent::readPipeOnce(rfevent::telemetryPipe(*state_), reader_));
    }

    std::vector<std::string> events() { return recorder_->snapshot(); }

    std::unique_ptr<Recorder> recorder_;
    std::unique_ptr<TelemetryPipeState> state_;
    int writer_ = -1;
    int reader_ = -1;
};

std::string announce(const std::string& name) {
    return name + "|" + std::string(1, '\0');
}

using Events = std::vector<std::string>;

TEST_F(NotifyParserTest, OneAnnouncementIsLookedUpAndSentToBothFanOuts) {
    LogCapture log;
    deliver(announce("Rpt1"));
    EXPECT_EQ((Events{"lookup:Rpt1", "subscription:report-Rpt1", "sse:report-Rpt1"}), events());
    EXPECT_TRUE(log.containsAny("Telemetry report  = Rpt1"));
    EXPECT_TRUE(log.containsAny("Sending reports to Subscription and SSE"));
}

TEST_F(NotifyParserTest, TwoAnnouncementsInOneRead) {
    deliver(announce("A") + announce("B"));
    EXPECT_EQ((Events{"lookup:A", "subscription:report-A", "sse:report-A", "lookup:B",
                      "subscription:report-B", "sse:report-B"}),
              events());
}

TEST_F(NotifyParserTest, NamesWithoutTerminatorLoseTheNextFirstCharacter) {
    deliver("A|B|");
    EXPECT_EQ((Events{"lookup:A", "subscription:report-A", "sse:report-A", "serial"}), events());
}

TEST_F(NotifyParserTest, CommandNamesMatchAsPrefixesInAnyCase) {
    deliver(announce("SerialLog"));
    deliver(announce("serial"));
    deliver(announce("cpu"));
    deliver(announce("CPUREGISTERS"));
    EXPECT_EQ((Events{"serial", "serial", "cpu", "cpu"}), events());
}

TEST_F(NotifyParserTest, LongerThanACommandNameIsAReport) {
    deliver(announce("CPURegistersX"));
    EXPECT_EQ((Events{"lookup:CPURegistersX", "subscription:report-CPURegistersX",
                      "sse:report-CPURegistersX"}),
              events());
}

TEST_F(NotifyParserTest, FragmentAcrossReadsIsJoinedAndStaysStale) {
    LogCapture log;
    deliver("Rep");
    EXPECT_TRUE(events().empty());
    EXPECT_TRUE(log.containsAny("Last report name fragment :Rep"));
    deliver("ort1|" + std::string(1, '\0'));
    deliver(announce("Foo"));
    EXPECT_EQ((Events{"lookup:Report1", "subscription:report-Report1", "sse:report-Report1",
                      "lookup:RepFoo", "subscription:report-RepFoo", "sse:report-RepFoo"}),
              events());
    EXPECT_EQ(2, log.countAny("Reading first report name from pipe"));
    EXPECT_TRUE(log.containsAny("Combined report name : RepFoo"));
}

TEST_F(NotifyParserTest, StaleFragmentOnlyPrefixesTheFirstNameOfARead) {
    deliver("Rep");
    deliver(announce("X") + announce("Y"));
    EXPECT_EQ((Events{"lookup:RepX", "subscription:report-RepX", "sse:report-RepX", "lookup:Y",
                      "subscription:report-Y", "sse:report-Y"}),
              events());
}

TEST_F(NotifyParserTest, LeadingBarIsSkippedAndDisablesTheFragment) {
    deliver("Rep");
    deliver("|" + announce("Foo"));
    EXPECT_EQ((Events{"lookup:Foo", "subscription:report-Foo", "sse:report-Foo"}), events());
}

TEST_F(NotifyParserTest, ALaterCutNameReplacesTheFragment) {
    deliver("Report");
    deliver(announce("Z") + "Ab");
    deliver(announce("1"));
    EXPECT_EQ((Events{"lookup:ReportZ", "subscription:report-ReportZ", "sse:report-ReportZ",
                      "lookup:Ab1", "subscription:report-Ab1", "sse:report-Ab1"}),
              events());
}

TEST_F(NotifyParserTest, OverLongNameIsLookedUpByItsFirst255Characters) {
    std::string name(300, 'x');
    deliver(announce(name));
    ASSERT_FALSE(events().empty());
    EXPECT_EQ("lookup:" + std::string(255, 'x'), events()[0]);
}

TEST_F(NotifyParserTest, OverLongFirstNameIsNotJoinedWithTheFragment) {
    deliver("Rep");
    deliver(announce(std::string(260, 'y')));
    ASSERT_FALSE(events().empty());
    EXPECT_EQ("lookup:" + std::string(255, 'y'), events()[0]);
}

TEST_F(NotifyParserTest, ReportNotFoundSendsNothing) {
    deliver(announce("Gone") + announce("Here"));
    EXPECT_EQ((Events{"lookup:Gone", "lookup:Here", "subscription:report-Here", "sse:report-Here"}),
              events());
}

TEST_F(NotifyParserTest, FailingAnnouncementIsDroppedAndTheNextOneServed) {
    recorder_->channels.throwOn = "report-Bad";
    LogCapture log;
    deliver(announce("Bad") + announce("Good"));
    EXPECT_EQ((Events{"lookup:Bad", "lookup:Good", "subscription:report-Good", "sse:report-Good"}),
              events());
    EXPECT_TRUE(log.contains(2, "subscription store broke"));
}

TEST_F(NotifyParserTest, ReadBufferIsZeroedAfterEveryRead) {
    deliver(announce("Longer"));
    deliver(announce("S1")); // "S1" + stale bytes would not be a command
    EXPECT_EQ("lookup:S1", events()[3]);
    for (char byte : state_->readBuffer) {
        ASSERT_EQ('\0', byte);
    }
}

TEST_F(NotifyParserTest, ParseDrivenDirectly) {
    const char bytes[] = "cpu|\0Rpt|\0";
    std::memcpy(state_->readBuffer, bytes, sizeof bytes - 1);
    rfevent::parseTelemetryRead(*state_, static_cast<int>(sizeof bytes - 1));
    EXPECT_EQ((Events{"cpu", "lookup:Rpt", "subscription:report-Rpt", "sse:report-Rpt"}), events());
}

TEST_F(NotifyParserTest, EveryPassRegistersThePipeWithId43) {
    close(reader_);
    reader_ = rfevent::openPipe(rfevent::telemetryPipe(*state_)).release();
    ASSERT_GE(reader_, 0);
    std::string registrations = rfevent::testkit::readFile(
        rfevent::testkit::rooted("/var/lib/rfevent/report-triggers.log"));
    std::string line = fifoPath() + " 43\n";
    EXPECT_EQ(line + line, registrations);
}

// Lookups in the real database, sends recorded.
class NotifyDatabaseTest : public NotifyParserTest {
  protected:
    void SetUp() override {
        NotifyParserTest::SetUp();
        rfevent::testkit::removeFile(rfevent::fixedPath(rfevent::FixedPath::TelemetryDatabase));
    }
    void createDatabase() { storeReports({{"Rpt1", "{\"Id\":\"Rpt1\"}"}}); }
};

TEST_F(NotifyDatabaseTest, AnnouncedReportIsFetchedByItsResourcePath) {
    createDatabase();
    deliver(announce("Rpt1"));
    EXPECT_EQ((Events{"lookup:Rpt1", R"(subscription:{"Id":"Rpt1"})", R"(sse:{"Id":"Rpt1"})"}),
              events());
}

TEST_F(NotifyDatabaseTest, ReportMissingFromTheDatabaseSendsNothing) {
    createDatabase();
    deliver(announce("Rpt2"));
    EXPECT_EQ((Events{"lookup:Rpt2"}), events());
}

TEST_F(NotifyDatabaseTest, AbsentDatabaseSendsNothing) {
    deliver(announce("Rpt1"));
    EXPECT_EQ((Events{"lookup:Rpt1"}), events());
}

// The real thread with recorded actions.
class NotifyThreadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rfevent::testkit::resetSandbox();
        storeTestReports();
        writeCaptures();
        recorder_ = std::make_unique<Recorder>();
    }
    void TearDown() override { recorder_.reset(); }
    std::unique_ptr<Recorder> recorder_;
};

bool waitFor(const std::function<bool()>& condition) {
    return rfevent::testkit::waitUntil(condition);
}

// With its flag raised the thread logs its start and parks: its loop never touches the pipe.
TEST_F(NotifyThreadTest, ThreadWithFlagSetStaysParked) {
    LogCapture log;
    RunFlag raised{1};
    auto state = std::make_unique<TelemetryPipeState>();
    runPipeThread(telemetryPipe(*state), &raised); // returns at once
    struct stat info;
    EXPECT_NE(0, stat(fifoPath().c_str(), &info));
    EXPECT_EQ(log.countAny("FIFO CREATION"), 0);
    // The body itself runs in a child process, since it never returns.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        TelemetryServiceNotifyWaitThread(&raised);
        _exit(1);
    }
    EXPECT_TRUE(waitFor([&] { return log.containsAny("TelemetryService notify thread start"); }));
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0); // parked, not ended
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_NE(0, stat(fifoPath().c_str(), &info)); // never got as far as the pipe
}

TEST_F(NotifyThreadTest, ThreadReadsAnnouncementsFromItsPipe) {
    auto state = std::make_unique<TelemetryPipeState>();
    rfevent::testkit::RunningPipe running(telemetryPipe(*state));
    struct stat info;
    ASSERT_TRUE(waitFor([&] { return stat(fifoPath().c_str(), &info) == 0; }));
    int writer = open(fifoPath().c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    std::string bytes = announce("Rpt1") + announce("cpu");
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(writer, bytes.data(), bytes.size()));
    close(writer);
    EXPECT_TRUE(waitFor([&] { return recorder_->snapshot().size() == 4; }));
    EXPECT_EQ((Events{"lookup:Rpt1", "subscription:report-Rpt1", "sse:report-Rpt1", "cpu"}),
              recorder_->snapshot());
}

} // namespace

// ---- End to end: the real thread, database, push subscriber and SSE stand-in ----------------

#include "harness/sse_receiver.h"
#include "telemetry/push_subscriber.h"

namespace {

using namespace rfevent::testkit;

const std::string kEndToEndReport =
    R"({"Id":"Rpt1","MetricReportDefinition":{"@odata.id":)"
    R"("/redfish/v1/TelemetryService/MetricReportDefinitions/Rpt1"},)"
    R"("MetricValues":[],"ReportSequence":"5"})";

TEST(NotifyEndToEnd, AnnouncedReportReachesPushSubscriberAndSseClient) {
    resetSandbox();
    MetricReportSubscriber subscriber;
    HttpsServer& server = subscriber.server;
    Json::Value sse(Json::objectValue);
    sse["client"]["Event-type"] = "EventFormatType eq MetricReport";
    writeSseSubscriptions(sse);
    SseReceiver receiver({"", SseReceiver::portFromEnvironment()});

    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_open(rfevent::fixedPath(rfevent::FixedPath::TelemetryDatabase), &db));
    sqlite3_stmt* insert = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE JSON (root TEXT, \"@odata.id\" TEXT)",
                                      nullptr, nullptr, nullptr));
    ASSERT_EQ(SQLITE_OK,
              sqlite3_prepare_v2(db, "INSERT INTO JSON VALUES (?, ?)", -1, &insert, nullptr));
    sqlite3_bind_text(insert, 1, kEndToEndReport.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, (kReportsPrefix + "Rpt1").c_str(), -1, SQLITE_TRANSIENT);
    ASSERT_EQ(SQLITE_DONE, sqlite3_step(insert));
    sqlite3_finalize(insert);
    sqlite3_close(db);

    auto state = std::make_unique<TelemetryPipeState>();
    RunningPipe running(telemetryPipe(*state));
    struct stat info;
    ASSERT_TRUE(waitFor([&] { return stat(fifoPath().c_str(), &info) == 0; }));
    int writer = open(fifoPath().c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    std::string bytes = announce("Rpt1");
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(writer, bytes.data(), bytes.size()));
    close(writer);

    ASSERT_TRUE(server.waitForRequests(1, rfevent::testkit::kEventDeadline));
    RecordedRequest request = server.requests()[0];
    EXPECT_EQ("POST", request.method);
    EXPECT_EQ("/metrics", request.target);
    EXPECT_EQ(kEndToEndReport, request.body);

    ASSERT_TRUE(receiver.waitForPieces(2, rfevent::testkit::kEventDeadline));
    EXPECT_EQ("EventFormatType eq MetricReport=<id:5>:" + kEndToEndReport, receiver.pieces()[0]);
    EXPECT_EQ("EventFormatType eq MetricReport=<END>", receiver.pieces()[1]);
}

} // namespace
