// The commands of rfevent-sim: the scripted demo and the single actions.
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <system_error>
#include <thread>

#include "sample_data.h"
#include "simulation.h"

namespace rfevent::sim {

namespace {

std::vector<AlertSpec> demoAlerts() {
    AlertSpec critical;
    critical.severity = 1;
    critical.eventId = 2101;
    critical.messageId = "PSU0003";
    critical.message = "Power supply 2 lost its AC input.";
    critical.args = {"2"};
    critical.fqdd = "PSU.Slot.2";
    AlertSpec warning;
    warning.severity = 2;
    warning.eventId = 2102;
    warning.messageId = "FAN0001";
    warning.message = "Fan 3 runs at 1200 RPM, below its warning threshold.";
    warning.args = {"3", "1200"};
    warning.fqdd = "Fan.Embedded.3";
    AlertSpec info;
    info.severity = 3;
    info.eventId = 2103;
    info.messageId = "SYS1001";
    info.message = "System is turning on.";
    info.fqdd = "System.Embedded.1";
    info.memberId = 1;
    return {critical, warning, info};
}

// The report name a replay request stands for: after the filter's last "/", without quotes
// and closing parentheses.
std::string replayReportName(const std::string& filter) {
    auto slash = filter.rfind('/');
    std::string name = slash == std::string::npos ? filter : filter.substr(slash + 1);
    std::string kept;
    for (char c : name) {
        if (c != '\'' && c != ')') {
            kept.push_back(c);
        }
    }
    return kept;
}

// The plug-in reads the test-report pipe 1024 bytes at a time, a report and its terminator.
constexpr std::size_t kMaxTestReport = 1023;

// Reads a test report of 1 to kMaxTestReport bytes into `json`; returns why it cannot, or "".
std::string readTestReport(const std::string& file, std::string& json) {
    auto failure = [&file](int error) {
        return "cannot read " + file + ": " +
               std::error_code(error, std::generic_category()).message();
    };
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return failure(errno);
    }
    char buffer[kMaxTestReport + 1];
    std::size_t size = 0;
    int error = 0;
    while (size < sizeof buffer) {
        ssize_t n = ::read(fd, buffer + size, sizeof buffer - size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = n < 0 ? errno : 0;
            break;
        }
        size += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (error != 0) {
        return failure(error);
    }
    if (size == 0 || size > kMaxTestReport) {
        return file + (size == 0 ? " is empty" : " holds more than 1023 bytes") +
               "; a test report is a report JSON of 1 to 1023 bytes";
    }
    json.assign(buffer, size);
    return "";
}

// What a replay can find in a fresh sandbox, for the note when a request matches nothing.
std::string storedReportsText() {
    std::string text = "the telemetry database holds";
    for (const auto& [name, json] : sampleDatabaseReports()) {
        text += " " + name + " (sequence " + reportSequence(json) + ")";
    }
    return text + "; the serial-log and CPU-register reports exist once announced";
}

} // namespace

std::string Simulation::checkInput() {
    const std::string& command = commandLine_.command;
    const auto& args = commandLine_.arguments;
    if (command == "report") {
        std::string known;
        for (const auto& [name, json] : sampleDatabaseReports()) {
            if (name == args[0]) {
                return "";
            }
            known += " " + name;
        }
        return "no report \"" + args[0] + "\" in the telemetry database; it holds:" + known;
    }
    if (command == "test-report") {
        return readTestReport(args[0], testReport_);
    }
    return "";
}

// How long a pipe may stay without its reading thread: the plug-in's threads open their pipes
// within about a second of starting and keep them open.
std::chrono::milliseconds Simulation::readerTimeout() const {
    return std::min<std::chrono::milliseconds>(std::chrono::seconds(commandLine_.timeoutSeconds),
                                               std::chrono::seconds(5));
}

int Simulation::runCommand() {
    const std::string& command = commandLine_.command;
    const auto& args = commandLine_.arguments;
    if (command == "demo") {
        demo();
    } else if (command == "listen") {
        listen();
    } else if (command == "alert") {
        stepHeader("Alert");
        expectUnreachableRetries();
        fireAlerts({commandLine_.alert});
        waitForStep();
    } else if (command == "report") {
        return reportCommand(args[0]);
    } else if (command == "test-report") {
        return testReportCommand(args[0]);
    } else if (command == "serial-log") {
        stepHeader("Serial-log report");
        sandbox_->appendSerialLog("rfevent-sim: console line for the serial-log report\n");
        expectLogReport(kSseSerialFilter);
        announce("seriallog") && waitForStep();
    } else if (command == "cpu-registers") {
        stepHeader("CPU-register report");
        expectLogReport(kSseCpuFilter);
        announce("CPURegisters") && waitForStep();
    } else if (command == "replay") {
        produceLogReportFor(args[1]);
        stepHeader("Last-Event-ID replay");
        expectReplay(args[0], args[1]);
        requestReplay(args[0], args[1]) && waitForStep();
    }
    return stepFailed_ ? kExitMissing : kExitOk;
}

void Simulation::demo() {
    stepHeader("1. Alerts of each severity, with FQDDs");
    note("push subscription 1 (alerts) and the SSE alert client receive each alert;");
    note("subscription 4 points at a port where nothing listens: 2 attempts, no pause, then");
    note("event-log entry JX083 and its DeliveryRetryPolicy SuspendRetries disable it");
    for (const AlertSpec& alert : demoAlerts()) {
        note("FQDD " + alert.fqdd + " -> " + plugin_.mapFqdd(alert.fqdd));
    }
    expectUnreachableRetries();
    fireAlerts(demoAlerts());
    waitForStep();

    if (stopRequested()) {
        return;
    }
    stepHeader("2. Metric report PowerMetrics announced on the telemetry pipe");
    note("looked up in the telemetry database; subscription 3 only wants PowerMetrics;");
    note("subscription 5's collector refuses every report (HTTP 413): counted as delivered,");
    note("shown in the delivery status file and once in the log");
    for (const auto& [name, json] : sampleDatabaseReports()) {
        if (name == "PowerMetrics") {
            expectReport(json);
        }
    }
    announce("PowerMetrics") && waitForStep();

    if (stopRequested()) {
        return;
    }
    stepHeader("3. Test metric report written into the test-report pipe");
    expectReport(sampleTestReport());
    sendTestReport(sampleTestReport()) && waitForStep();

    if (stopRequested()) {
        return;
    }
    stepHeader("4. Serial-log report");
    sandbox_->appendSerialLog("rfevent-sim: demo console line\n");
    expectLogReport(kSseSerialFilter);
    announce("seriallog") && waitForStep();

    if (stopRequested()) {
        return;
    }
    stepHeader("5. CPU-register report (large: travels to SSE in several pieces)");
    expectLogReport(kSseCpuFilter);
    announce("CPURegisters") && waitForStep();

    if (stopRequested()) {
        return;
    }
    stepHeader("6. Last-Event-ID replay of the CPU-register report");
    std::string report = readTextFile(sandbox_->path(paths::kCpuRegisterReport));
    std::string id = report.empty() ? monitor_->lastSseId(kSseCpuFilter) : reportSequence(report);
    if (id.empty()) {
        id = "1";
    }
    expectReplay(id, kSseCpuFilter);
    requestReplay(id, kSseCpuFilter) && waitForStep();
}

void Simulation::listen() {
    stepHeader("Listening");
    std::cout << "Point a host or another build at these receivers:\n"
              << "  export RFEVENT_ROOT=" << sandbox_->root() << "\n"
              << "  export RFEVENT_SSE_PORT=" << ssePort_ << "\n"
              << "  export RFEVENT_LOG_FILE=" << sandbox_->path(paths::kPluginLog) << "\n"
              << "Press Ctrl-C to stop.\n";
    monitor_->waitUntil([] { return stopRequested(); }, std::chrono::hours(24 * 365));
}

void Simulation::stepHeader(const std::string& title) {
    std::cout << "\n== " << title << " ==\n";
    monitor_->poll();
    stepStartShortfall_ = monitor_->shortfall();
    stepStartExpected_ = monitor_->expectedTotal();
}

void Simulation::note(const std::string& text) {
    std::cout << "   " << text << "\n";
}

// Waits for what this step added to the expectations; earlier gaps do not hold it up.
bool Simulation::waitForStep() {
    auto stepDone = [this] { return monitor_->shortfall() <= stepStartShortfall_; };
    auto timeout = std::chrono::seconds(commandLine_.timeoutSeconds);
    if (monitor_->expectedTotal() == stepStartExpected_) {
        // Nothing is due: watch a little for whatever the plug-in sends anyway.
        monitor_->waitUntil([] { return false; },
                            std::min<std::chrono::milliseconds>(timeout, std::chrono::seconds(4)));
        return true;
    }
    if (monitor_->waitUntil(stepDone, timeout)) {
        return true;
    }
    std::cout << "   still missing after " << commandLine_.timeoutSeconds << " s:\n";
    for (const std::string& gap : monitor_->missing()) {
        std::cout << "     - " << gap << "\n";
    }
    return false;
}

void Simulation::fireAlerts(const std::vector<AlertSpec>& alerts) {
    for (const AlertSpec& alert : alerts) {
        std::cout << "   alert " << severityName(alert.severity) << " event " << alert.eventId
                  << " " << alert.messageId << " \"" << alert.message << "\" " << alert.fqdd
                  << "\n";
        expectAlert();
    }
    // Alerts run on the caller's thread and may wait for retries: send them from a worker so
    // that deliveries are printed while they happen.
    std::atomic<bool> done{false};
    std::thread sender([&] {
        for (const AlertSpec& alert : alerts) {
            AlertRecord record(alert);
            plugin_.sendAlert(record.header());
        }
        done.store(true);
    });
    monitor_->waitUntil([&] { return done.load(); }, std::chrono::hours(1));
    sender.join();
}

void Simulation::expectAlert() {
    monitor_->expectDestination(kAlertsDestination, 1);
    monitor_->expectSse(kSseAlertKey, 1);
}

// Subscription 4 wants alerts at a port where nothing listens: the first alert goes through
// every attempt, the event-log entry and the subscription's SuspendRetries policy.
void Simulation::expectUnreachableRetries() {
    monitor_->expectEventLog("JX083", monitor_->destinationUrl(kUnreachableDestination), 1);
    monitor_->expectPolicy(kUnreachableSubscription, "SubscriptionStateAfterRetry=Disabled");
}

void Simulation::expectReport(const std::string& reportJson) {
    std::string definition = reportDefinition(reportJson);
    monitor_->expectDestination(kReportsDestination, 1);
    monitor_->expectDestination(kRefusingDestination, 1);
    if (definition == std::string(kDefinitionsRoot) + "PowerMetrics") {
        monitor_->expectDestination(kPowerDestination, 1);
    }
    for (const std::string& key : sseKeysForDefinition(sseSubscriptions_, definition)) {
        monitor_->expectSse(key, 1);
    }
}

void Simulation::expectLogReport(const char* sseKey) {
    monitor_->expectDestination(kReportsDestination, 1);
    monitor_->expectDestination(kRefusingDestination, 1);
    monitor_->expectSse(sseKey, 1);
}

bool Simulation::announce(const std::string& name) {
    note("telemetry pipe <- \"" + name + "|\\0\"");
    std::string error = pipes_->announceReport(name, readerTimeout());
    if (!error.empty()) {
        std::cerr << "rfevent-sim: cannot announce " << name << ": " << error << "\n";
        stepFailed_ = true;
        return false;
    }
    return true;
}

bool Simulation::sendTestReport(const std::string& json) {
    note("test-report pipe <- " + std::to_string(json.size()) + " bytes");
    std::string error = pipes_->sendTestReport(json, readerTimeout());
    if (!error.empty()) {
        std::cerr << "rfevent-sim: cannot send the test report: " << error << "\n";
        stepFailed_ = true;
        return false;
    }
    return true;
}

bool Simulation::requestReplay(const std::string& id, const std::string& filter) {
    note("SSE infrastructure pipe <- \"" + id + "|" + filter + "\"");
    std::string error = pipes_->requestReplay(id, filter, readerTimeout());
    if (!error.empty()) {
        std::cerr << "rfevent-sim: cannot request the replay: " << error << "\n";
        stepFailed_ = true;
        return false;
    }
    return true;
}

// The serial-log and CPU-register reports exist only once announced. A replay of one that the
// sandbox does not hold yet announces it first, as the demo does, so that a fresh sandbox has
// a report to replay (the first one has sequence 1). The names are the plug-in's: it reads
// these two reports from their files only for exactly "seriallog" and "CPURegisters".
void Simulation::produceLogReportFor(const std::string& filter) {
    std::string name = replayReportName(filter);
    bool cpu = name == "CPURegisters";
    if (!cpu && name != "seriallog") {
        return;
    }
    if (!readTextFile(sandbox_->path(cpu ? paths::kCpuRegisterReport : paths::kSerialLogReport))
             .empty()) {
        return;
    }
    stepHeader(cpu ? "CPU-register report" : "Serial-log report");
    note("the sandbox holds no " + name + " report yet: announced first, to have one to replay");
    expectLogReport(cpu ? kSseCpuFilter : kSseSerialFilter);
    announce(cpu ? "CPURegisters" : "seriallog") && waitForStep();
}

bool Simulation::expectReplay(const std::string& id, const std::string& filter) {
    std::string name = replayReportName(filter);
    std::string report;
    if (strncasecmp(name.c_str(), "seriallog", name.size()) == 0 ||
        strncasecmp(name.c_str(), "CPURegisters", name.size()) == 0) {
        if (name == "seriallog") {
            report = readTextFile(sandbox_->path(paths::kSerialLogReport));
        } else if (name == "CPURegisters") {
            report = readTextFile(sandbox_->path(paths::kCpuRegisterReport));
        }
    } else {
        report = sandbox_->lookUpReport(name);
    }
    if (report.empty()) {
        note("no stored report \"" + name + "\": the plug-in should send nothing");
        note("(" + storedReportsText() + ")");
        return false;
    }
    std::string sequence = reportSequence(report);
    if (sequence != id) {
        note("report \"" + name + "\" has sequence " + sequence + ", not " + id +
             ": the plug-in should send nothing");
        note("(" + storedReportsText() + ")");
        return false;
    }
    std::size_t length = filter.size() + 1 + 4 + sequence.size() + 2 + report.size();
    note("report \"" + name + "\" sequence " + sequence +
         (length > 4096 ? ": the whole report is replayed"
                        : ": short report, only its end marker is replayed"));
    monitor_->expectSse(filter, 1);
    return true;
}

int Simulation::reportCommand(const std::string& name) {
    // checkInput() made sure the name is one of the sample reports the sandbox stores.
    std::string report = sandbox_->lookUpReport(name);
    stepHeader("Metric report " + name);
    expectReport(report);
    announce(name) && waitForStep();
    return stepFailed_ ? kExitMissing : kExitOk;
}

int Simulation::testReportCommand(const std::string& file) {
    // checkInput() read the file into testReport_.
    const std::string& json = testReport_;
    stepHeader("Test report " + file);
    if (reportDefinition(json).empty()) {
        note("no MetricReportDefinition: SSE clients with a filter will not get it");
    }
    expectReport(json);
    sendTestReport(json) && waitForStep();
    return stepFailed_ ? kExitMissing : kExitOk;
}

} // namespace rfevent::sim
