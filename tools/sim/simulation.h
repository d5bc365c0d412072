// One run of rfevent-sim: the sandbox, the receivers, the loaded plug-in and the command.
#ifndef RFEVENT_SIM_SIMULATION_H
#define RFEVENT_SIM_SIMULATION_H

#include <chrono>
#include <memory>
#include <string>

#include <json/json.h>

#include "cli.h"
#include "harness/certs.h"
#include "monitor.h"
#include "pipes.h"
#include "plugin_host.h"
#include "sandbox.h"

namespace rfevent::sim {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitMissing = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSetup = 3;

class Simulation {
  public:
    explicit Simulation(const CommandLine& commandLine);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    // Sets up, runs the command, prints the summary, tears down; returns the exit status.
    int run();

  private:
    // simulation.cpp: the world around the plug-in.
    bool setUp(bool withPlugin);
    void prepareSandbox();
    bool loadPlugin();
    std::string locatePlugin() const;
    int finish(int status);

    // scenario.cpp: the commands.
    // What the command takes from outside (a report name, a file), checked before anything
    // is set up; returns why it cannot run, or "".
    std::string checkInput();
    int runCommand();
    void demo();
    void listen();
    void stepHeader(const std::string& title);
    void note(const std::string& text);
    bool waitForStep();
    std::chrono::milliseconds readerTimeout() const;
    void fireAlerts(const std::vector<AlertSpec>& alerts);
    void expectAlert();
    void expectUnreachableRetries();
    void expectReport(const std::string& reportJson);
    void expectLogReport(const char* sseKey);
    bool announce(const std::string& name);
    bool sendTestReport(const std::string& json);
    bool requestReplay(const std::string& id, const std::string& filter);
    void produceLogReportFor(const std::string& filter);
    bool expectReplay(const std::string& id, const std::string& filter);
    int testReportCommand(const std::string& file);
    int reportCommand(const std::string& name);

    const CommandLine& commandLine_;
    std::unique_ptr<Sandbox> sandbox_;
    std::unique_ptr<Monitor> monitor_;
    std::unique_ptr<PipeWriter> pipes_;
    PluginHost plugin_;
    testkit::TestPki pki_;
    Json::Value sseSubscriptions_;
    std::string testReport_; // the test-report command's file, read by checkInput()
    bool stepFailed_ = false;
    int stepStartShortfall_ = 0;
    int stepStartExpected_ = 0;
    int ssePort_ = -1;
};

} // namespace rfevent::sim

#endif
