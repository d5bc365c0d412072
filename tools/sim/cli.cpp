#include "cli.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>

namespace rfevent::sim {

namespace {

struct CommandInfo {
    std::size_t arguments;
    const char* form;        // the command with its arguments
    const char* description; // what it does
};

const std::map<std::string, CommandInfo>& commands() {
    static const std::map<std::string, CommandInfo> table = {
        {"demo", {0, "demo", "scripted tour of every delivery path"}},
        {"alert", {0, "alert [ALERT OPTIONS]", "one platform alert"}},
        {"report", {1, "report NAME", "announce a metric report of the telemetry database"}},
        {"test-report",
         {1, "test-report FILE", "write a report JSON (<= 1023 bytes) into the test pipe"}},
        {"serial-log", {0, "serial-log", "append to the serial-log capture and announce it"}},
        {"cpu-registers", {0, "cpu-registers", "announce the CPU register dump"}},
        {"replay", {2, "replay ID FILTER", "Last-Event-ID replay request of an SSE client"}},
        {"listen", {0, "listen", "receivers only, for a host or build of your own"}},
        {"status",
         {0, "status", "print the delivery status file of --root DIR (or of this machine)"}},
    };
    return table;
}

bool parseInt(const std::string& text, long low, long high, long& value) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

// A Last-Event-ID as the plug-in compares it with a report's ReportSequence: 1 to 20 digits.
bool isReportSequence(const std::string& text) {
    return !text.empty() && text.size() <= 20 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

bool applyAlertOption(const std::string& name, const std::string& value, AlertSpec& alert,
                      std::string& error) {
    long number = 0;
    if (name == "--severity") {
        alert.severity = parseSeverity(value);
        if (alert.severity == 0) {
            error = "--severity takes critical, warning, informational or 1-3";
            return false;
        }
    } else if (name == "--event-id") {
        if (!parseInt(value, INT32_MIN, INT32_MAX, number)) {
            error = "--event-id takes a 32-bit integer";
            return false;
        }
        alert.eventId = static_cast<int32_t>(number);
    } else if (name == "--member-id") {
        if (!parseInt(value, INT32_MIN, INT32_MAX, number)) {
            error = "--member-id takes a 32-bit integer (0 = none)";
            return false;
        }
        alert.memberId = static_cast<int32_t>(number);
    } else if (name == "--message-id") {
        alert.messageId = value;
    } else if (name == "--message") {
        alert.message = value;
    } else if (name == "--arg") {
        alert.args.push_back(value);
        alert.hasArgs = true;
    } else if (name == "--fqdd") {
        alert.fqdd = value;
    } else {
        return false;
    }
    return true;
}

bool isAlertOption(const std::string& name) {
    return name == "--severity" || name == "--event-id" || name == "--member-id" ||
           name == "--message-id" || name == "--message" || name == "--arg" || name == "--fqdd";
}

} // namespace

bool parseCommandLine(int argc, char** argv, CommandLine& out, std::string& error) {
    out.alert.messageId = "SIM0001";
    out.alert.message = "Alert raised from rfevent-sim.";
    out.alert.fqdd = "System.Embedded.1";
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i] ? argv[i] : "";
        std::string value;
        auto eq = arg.find('=');
        bool inlineValue = arg.compare(0, 2, "--") == 0 && eq != std::string::npos;
        if (inlineValue) {
            value.assign(arg, eq + 1, std::string::npos);
            arg.resize(eq);
        }
        auto takeValue = [&](std::string& into) {
            if (inlineValue) {
                into = value;
                return true;
            }
            if (i + 1 >= argc || argv[i + 1] == nullptr) {
                error = arg + " needs a value";
                return false;
            }
            into = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            out.help = true;
        } else if (arg == "-v" || arg == "--verbose") {
            out.verbose = true;
        } else if (arg == "--plugin" || arg == "--root") {
            std::string& target = arg == "--plugin" ? out.pluginPath : out.root;
            if (!takeValue(target)) {
                return false;
            }
            if (target.empty()) {
                error = arg + " needs a non-empty value";
                return false;
            }
        } else if (arg == "--timeout") {
            long seconds = 0;
            if (!takeValue(value) || !parseInt(value, 1, 600, seconds)) {
                error = error.empty() ? "--timeout takes seconds (1-600)" : error;
                return false;
            }
            out.timeoutSeconds = static_cast<int>(seconds);
        } else if (isAlertOption(arg)) {
            if (!takeValue(value) || !applyAlertOption(arg, value, out.alert, error)) {
                return false;
            }
            out.alertOptionsGiven = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            error = "unknown option " + arg;
            return false;
        } else if (out.command.empty()) {
            out.command = arg;
        } else {
            out.arguments.push_back(arg);
        }
    }
    if (out.help) {
        return true;
    }
    if (out.command.empty()) {
        error = "no command given";
        return false;
    }
    auto command = commands().find(out.command);
    if (command == commands().end()) {
        error = "unknown command " + out.command;
        return false;
    }
    if (out.arguments.size() != command->second.arguments) {
        error = std::string("wrong number of arguments; the command is: ") + command->second.form;
        return false;
    }
    if (out.alertOptionsGiven && out.command != "alert") {
        error = "alert options only go with the alert command";
        return false;
    }
    if (out.command == "replay" && !isReportSequence(out.arguments[0])) {
        error = "replay ID is the report sequence an SSE client saw last (digits only), not \"" +
                out.arguments[0] + "\"";
        return false;
    }
    if (out.command == "replay" && out.arguments[1].empty()) {
        error = "replay FILTER must not be empty";
        return false;
    }
    return true;
}

void printUsageError(std::ostream& out, const std::string& error) {
    out << "rfevent-sim: " << error << "\nTry 'rfevent-sim --help' for the commands and options.\n";
}

void printUsage(std::ostream& out) {
    out << "usage: rfevent-sim [OPTIONS] COMMAND [ARGS]\n\n"
           "Runs the Redfish event plug-in on a workstation: loads it with dlopen, plays the REST\n"
           "server, the telemetry service and the event destinations around it, and prints every\n"
           "delivery as it arrives.\n\nCommands:\n";
    for (const auto& [name, info] : commands()) {
        std::string form = info.form;
        out << "  " << form << std::string(form.size() < 22 ? 22 - form.size() : 1, ' ')
            << info.description << "\n";
    }
    out << "\nOptions:\n"
           "  --plugin PATH      plug-in to load (default, from this program's folder: "
        << kBuildTreePlugin << ",\n                     then " << kInstalledPlugin
        << ")\n"
           "  --root DIR         sandbox root to prepare and keep (default: a temporary folder)\n"
           "  --timeout SECONDS  longest wait for the deliveries of one step (default 12)\n"
           "  -v, --verbose      print every delivered document\n"
           "  -h, --help         this text\n"
           "\nAlert options:\n"
           "  --severity critical|warning|informational   (or 1-3; default informational)\n"
           "  --event-id N  --message-id ID  --message TEXT  --arg TEXT (repeatable)\n"
           "  --fqdd FQDD  --member-id N\n"
           "\nExit status: 0 when every expected delivery arrived, 1 when some did not, 2 for a\n"
           "usage error, 3 when the sandbox or the plug-in could not be set up.\n";
}

} // namespace rfevent::sim
