// rfevent-sim: runs the Redfish event plug-in on a workstation. See printUsage().
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "cli.h"
#include "monitor.h"
#include "simulation.h"
#include "status_table.h"

namespace {

void onSignal(int) {
    rfevent::sim::requestStop();
}

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // The plug-in writes to pipes and sockets whose reader may be gone.
    signal(SIGPIPE, SIG_IGN);
}

} // namespace

int main(int argc, char** argv) {
    rfevent::sim::CommandLine commandLine;
    std::string error;
    if (!rfevent::sim::parseCommandLine(argc, argv, commandLine, error)) {
        rfevent::sim::printUsageError(std::cerr, error);
        return rfevent::sim::kExitUsage;
    }
    if (commandLine.help) {
        rfevent::sim::printUsage(std::cout);
        return rfevent::sim::kExitOk;
    }
    if (commandLine.command == "status") {
        // Reads a running or kept sandbox; nothing is set up and no plug-in is loaded.
        return rfevent::sim::printDeliveryStatus(commandLine.root, std::cout);
    }
    installSignalHandlers();
    int status = rfevent::sim::kExitSetup;
    try {
        rfevent::sim::Simulation simulation(commandLine);
        status = simulation.run();
    } catch (const std::exception& failure) {
        std::cerr << "rfevent-sim: " << failure.what() << "\n";
    }
    // The plug-in's worker threads live until the process ends and are never joined: leave
    // without running static destructors under their feet.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    ::_exit(status);
}
