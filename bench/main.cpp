// rfevent-bench: prints one table of the plug-in's cost against the floor of each case.
//
//   rfevent-bench [--quick] [--only NAME[,NAME...]] [--armhf-plugin PATH] [--plugin PATH]
//                 [--log-file PATH]
//
// NAME is one of alerts, store, reports, sse, database, instructions, fanout, footprint. Ratios are
// the plug-in's cost over the floor's, measured in the same run; absolute figures are for reference
// only. The plug-in logs at the platform's default level (errors) to a file in the run's sandbox,
// or to --log-file (e.g. /dev/null, to see what the log lines cost).
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "cases.h"
#include "rfevent/redfish_event.h"

namespace {

using namespace rfevent::bench;

struct Case {
    const char* name;
    void (*run)(const Context&, Table&);
};

const Case kCases[] = {
    {"alerts", runAlertCases},      {"store", runStoreCases},
    {"reports", runReportCases},    {"sse", runSseCases},
    {"database", runDatabaseCases}, {"instructions", runInstructionCases},
    {"fanout", runFanOutCases},     {"footprint", runFootprintCases},
};

struct Arguments {
    Context context;
    std::string child;
    std::vector<std::string> only;
};

void usage() {
    std::fprintf(stderr, "usage: rfevent-bench [--quick] [--only NAME[,NAME...]] "
                         "[--armhf-plugin PATH] [--plugin PATH] [--log-file PATH]\n");
    std::exit(2);
}

Arguments parseArguments(int argc, char** argv) {
    Arguments arguments;
    arguments.context.plugin = RFEVENT_PLUGIN_PATH;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--quick") {
            arguments.context.quick = true;
        } else if (arg == "--only" && hasValue) {
            std::string list = argv[++i];
            for (std::size_t start = 0; start <= list.size();) {
                std::size_t comma = list.find(',', start);
                if (comma == std::string::npos) {
                    comma = list.size();
                }
                arguments.only.push_back(list.substr(start, comma - start));
                start = comma + 1;
            }
        } else if (arg == "--armhf-plugin" && hasValue) {
            arguments.context.armhfPlugin = argv[++i];
        } else if (arg == "--log-file" && hasValue) {
            arguments.context.logFile = argv[++i];
        } else if (arg == "--plugin" && hasValue) {
            arguments.context.plugin = argv[++i];
        } else if (arg == "--child" && hasValue) {
            arguments.child = argv[++i];
        } else {
            usage();
        }
    }
    char self[PATH_MAX] = {};
    if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        std::fprintf(stderr, "cannot find this program's path\n");
        std::exit(2);
    }
    arguments.context.self = self;
    return arguments;
}

bool selected(const Arguments& arguments, const char* name) {
    if (arguments.only.empty()) {
        return true;
    }
    for (const std::string& wanted : arguments.only) {
        if (wanted == name) {
            return true;
        }
    }
    return false;
}

// A child measurement runs in the sandbox of its parent, which RFEVENT_ROOT names.
int runChild(Arguments& arguments) {
    const char* root = std::getenv("RFEVENT_ROOT");
    if (root == nullptr) {
        std::fprintf(stderr, "--child is for the benchmark's own use\n");
        return 2;
    }
    arguments.context.root = root;
    if (arguments.child == "rss" || arguments.child == "threads") {
        return runFootprintChild(arguments.child, arguments.context);
    }
    if (arguments.child.rfind("fanout-", 0) == 0) {
        return runFanOutChild(arguments.child);
    }
    return runInstructionChild(arguments.child);
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments = parseArguments(argc, argv);
    try {
        if (!arguments.child.empty()) {
            return runChild(arguments);
        }
        for (const std::string& name : arguments.only) {
            bool known = false;
            for (const Case& entry : kCases) {
                known = known || name == entry.name;
            }
            if (!known) {
                usage();
            }
        }
        prepareEnvironment(arguments.context);
        // What the host's load does: libcurl, then the plug-in's TLS session cache.
        RedfishEventPluginInit();
        Table table;
        for (const Case& entry : kCases) {
            if (selected(arguments, entry.name)) {
                std::fprintf(stderr, "%s\n", entry.name);
                entry.run(arguments.context, table);
            }
        }
        std::printf("\n");
        table.print(stdout);
        std::printf("\nratio = plug-in cost / floor cost, measured in this run (1.00 = at the "
                    "floor)\n");
        const int over = table.overBound();
        if (over == 0) {
            std::printf("every row is within its bound\n");
        } else {
            std::printf("%d row%s over %s bound\n", over, over == 1 ? "" : "s",
                        over == 1 ? "its" : "their");
        }
        RedfishEventPluginCleanup();
        removeSandbox(arguments.context);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rfevent-bench: %s\n", error.what());
        if (arguments.child.empty()) {
            std::fprintf(stderr, "sandbox kept for inspection: %s\n",
                         arguments.context.root.c_str());
        }
        return 1;
    }
}
