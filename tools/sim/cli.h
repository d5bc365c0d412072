// Command line of rfevent-sim.
#ifndef RFEVENT_SIM_CLI_H
#define RFEVENT_SIM_CLI_H

#include <ostream>
#include <string>
#include <vector>

#include "alert_record.h"

namespace rfevent::sim {

struct CommandLine {
    std::string
        command; // demo, alert, report, test-report, serial-log, cpu-registers, replay, listen
    std::vector<std::string> arguments; // the command's positional arguments
    std::string pluginPath;             // empty: next to the executable
    std::string root;                   // empty: a fresh temporary folder
    bool verbose = false;
    bool help = false;
    int timeoutSeconds = 12; // longest wait for one step's deliveries
    AlertSpec alert;
    bool alertOptionsGiven = false;
};

// Where the plug-in is looked for when --plugin is not given, relative to this program's
// folder: first in the build tree, then in the install it belongs to.
inline constexpr const char* kBuildTreePlugin = "../src/libredfishevent.so";
inline constexpr const char* kInstalledPlugin = RFEVENT_SIM_INSTALLED_PLUGIN;

// Parses argv; on bad input returns false with the reason in `error`.
bool parseCommandLine(int argc, char** argv, CommandLine& out, std::string& error);
void printUsage(std::ostream& out);
// What a usage error prints: the reason in one line, and where the usage is.
void printUsageError(std::ostream& out, const std::string& error);

} // namespace rfevent::sim

#endif
