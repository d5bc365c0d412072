// Runs the built host simulator (tools/rfevent-sim) as a separate process against the built
// plug-in and collects what it printed on each stream.
#ifndef RFEVENT_TESTS_SIM_RUN_H
#define RFEVENT_TESTS_SIM_RUN_H

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "harness/sandbox.h"

namespace rfevent::testkit {

// <build>/src/libredfishevent.so -> <build>/tools/rfevent-sim
inline std::string simulatorPath() {
    namespace fs = std::filesystem;
    return (fs::path(RFEVENT_PLUGIN_PATH).parent_path().parent_path() / "tools" / "rfevent-sim")
        .string();
}

// The text as one shell word.
inline std::string shellQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

struct SimRun {
    int status = -1;    // exit status, -1 when it did not exit normally
    std::string out;    // standard output
    std::string err;    // standard error
    std::string output; // both, standard output first
};

// Runs the simulator with `arguments` (already quoted); its temporary sandboxes go below this
// test's own sandbox root.
inline SimRun runSimulator(const std::string& arguments) {
    std::string errFile = sandboxRoot() + "/sim-stderr.txt";
    std::string command =
        "TMPDIR=" + shellQuoted(sandboxRoot()) + " " + shellQuoted(simulatorPath()) + " --plugin " +
        shellQuoted(RFEVENT_PLUGIN_PATH) + " " + arguments + " 2>" + shellQuoted(errFile);
    SimRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        run.out.append(buffer, n);
    }
    int raw = ::pclose(pipe);
    run.status = (raw != -1 && WIFEXITED(raw)) ? WEXITSTATUS(raw) : -1;
    std::ifstream errors(errFile);
    std::ostringstream text;
    text << errors.rdbuf();
    run.err = text.str();
    run.output = run.out + run.err;
    return run;
}

} // namespace rfevent::testkit

#endif
