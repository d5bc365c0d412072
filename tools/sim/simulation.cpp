#include "simulation.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "sample_data.h"

namespace fs = std::filesystem;

namespace rfevent::sim {

Simulation::Simulation(const CommandLine& commandLine) : commandLine_(commandLine) {}

Simulation::~Simulation() = default;

int Simulation::run() {
    std::string problem = checkInput();
    if (!problem.empty()) {
        std::cerr << "rfevent-sim: " << problem << "\n";
        return kExitUsage;
    }
    bool needsPlugin = commandLine_.command != "listen";
    if (!setUp(needsPlugin)) {
        return finish(kExitSetup);
    }
    int status = kExitSetup;
    try {
        status = runCommand();
    } catch (const std::exception& error) {
        std::cerr << "rfevent-sim: " << error.what() << "\n";
        status = kExitSetup;
    }
    return finish(status);
}

bool Simulation::setUp(bool withPlugin) {
    try {
        sandbox_ = std::make_unique<Sandbox>(commandLine_.root);
        std::cout << "Sandbox root: " << sandbox_->root()
                  << (sandbox_->temporary() ? " (temporary)" : "") << "\n";
        monitor_ = std::make_unique<Monitor>(*sandbox_, commandLine_.verbose, std::cout);
        pipes_ = std::make_unique<PipeWriter>(*sandbox_);
        prepareSandbox();
    } catch (const std::exception& error) {
        std::cerr << "rfevent-sim: cannot prepare the sandbox: " << error.what() << "\n";
        return false;
    }
    return !withPlugin || loadPlugin();
}

void Simulation::prepareSandbox() {
    const Sandbox& box = *sandbox_;
    pki_ = testkit::generateTestPki(box.path(paths::kPki));
    testkit::installClientCredentials(pki_, box.root(), true);

    DestinationUrls urls;
    urls.alerts = monitor_->addDestination(kAlertsDestination, pki_, "/events/alerts");
    urls.reports = monitor_->addDestination(kReportsDestination, pki_, "/events/reports");
    urls.power = monitor_->addDestination(kPowerDestination, pki_, "/events/power");
    urls.unreachable = monitor_->addUnreachableDestination(kUnreachableDestination, "/events");
    urls.refusing = monitor_->addDestination(kRefusingDestination, pki_, "/events/refusing", 413);
    int ssePort = monitor_->startSse();
    ssePort_ = ssePort;

    box.writeAttributes(DeliverySettings{});
    box.writeSubscriptionStore(sampleSubscriptionStore(urls));
    sseSubscriptions_ = sampleSseSubscriptions();
    box.writeSseSubscriptions(sseSubscriptions_);
    box.writeTelemetryDatabase(sampleDatabaseReports());
    box.appendSerialLog(sampleSerialLogLines());
    box.writeCpuRegisterDump(sampleCpuRegisterDump());
    monitor_->takeBaseline();

    // The plug-in and its platform read these when they first need a path; they are set
    // before dlopen, and no other thread of this program reads the environment.
    std::string logFile = box.path(paths::kPluginLog);
    // NOLINTBEGIN(concurrency-mt-unsafe)
    ::setenv("RFEVENT_ROOT", box.root().c_str(), 1);
    ::setenv("RFEVENT_SSE_PORT", std::to_string(ssePort).c_str(), 1);
    ::setenv("RFEVENT_LOG_FILE", logFile.c_str(), 1);
    ::setenv("RFEVENT_LOG_LEVEL", "5", 0);
    // NOLINTEND(concurrency-mt-unsafe)

    std::cout << "Destinations (HTTPS, mutual TLS):\n";
    for (const char* name :
         {kAlertsDestination, kReportsDestination, kPowerDestination, kUnreachableDestination}) {
        std::cout << "  " << name << std::string(16 - std::string(name).size(), ' ')
                  << monitor_->destinationUrl(name) << "\n";
    }
    std::cout << "SSE stream server: FIFO " << box.path(paths::kSseFifo) << ", port " << ssePort
              << "\nPlug-in log: " << logFile << "\n";
}

std::string Simulation::locatePlugin() const {
    if (!commandLine_.pluginPath.empty()) {
        return commandLine_.pluginPath;
    }
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) {
        return "libredfishevent.so";
    }
    fs::path dir = self.parent_path();
    for (const char* candidate : {kBuildTreePlugin, kInstalledPlugin}) {
        fs::path path = (dir / candidate).lexically_normal();
        if (fs::exists(path)) {
            return path.string();
        }
    }
    return (dir / kBuildTreePlugin).lexically_normal().string();
}

bool Simulation::loadPlugin() {
    std::string path = locatePlugin();
    std::cout << "Loading " << path << "\n";
    if (!plugin_.load(path)) {
        std::cerr << "rfevent-sim: " << plugin_.error() << "\n";
        return false;
    }
    plugin_.startWorkers();
    std::cout << "Plug-in loaded; Redfish_telemetry_init started its worker threads.\n";
    return true;
}

int Simulation::finish(int status) {
    std::size_t gaps = 0;
    if (monitor_) {
        monitor_->stop();
        // Only a command that ran has a summary; a failed set-up said why on stderr.
        if (status == kExitOk || status == kExitMissing) {
            monitor_->printSummary(stepFailed_);
            gaps = monitor_->missing().size();
            if (gaps > 0) {
                status = kExitMissing;
            }
        }
    }
    if (gaps > 0) {
        std::cout.flush();
        std::cerr << "rfevent-sim: " << gaps
                  << " expectation(s) not met; the summary above lists them\n";
    }
    if (plugin_.loaded()) {
        if (plugin_.unload()) {
            std::cout << "Plug-in unloaded.\n";
        } else {
            std::cerr << "rfevent-sim: unloading failed: " << plugin_.error() << "\n";
        }
    }
    if (sandbox_ && sandbox_->temporary()) {
        if (status != kExitMissing) {
            sandbox_->remove();
        } else {
            std::cout << "Sandbox kept for inspection: " << sandbox_->root() << "\n";
        }
    }
    std::cout.flush();
    return status;
}

} // namespace rfevent::sim
