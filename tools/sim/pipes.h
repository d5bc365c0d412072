// The writing side of the plug-in's named pipes: the telemetry service's report
// announcements, the test facility's reports and the SSE stream server's replay requests.
#ifndef RFEVENT_SIM_PIPES_H
#define RFEVENT_SIM_PIPES_H

#include <chrono>
#include <string>

#include "sandbox.h"

namespace rfevent::sim {

class PipeWriter {
  public:
    explicit PipeWriter(const Sandbox& sandbox) : sandbox_(sandbox) {}

    // One write of `bytes` into the pipe at a controller path, once the plug-in's thread has
    // created it and opened it for reading (waits up to `timeout`). "" on success, otherwise
    // what went wrong.
    std::string write(const char* controllerPath, const std::string& bytes,
                      std::chrono::milliseconds timeout) const;

    // "<name>|" and the writer's NUL, as the telemetry service announces a report.
    std::string announceReport(const std::string& name, std::chrono::milliseconds timeout) const;
    std::string sendTestReport(const std::string& json, std::chrono::milliseconds timeout) const;
    // "<last event id>|<filter>", as the SSE stream server asks for a replay.
    std::string requestReplay(const std::string& lastEventId, const std::string& filter,
                              std::chrono::milliseconds timeout) const;

  private:
    const Sandbox& sandbox_;
};

} // namespace rfevent::sim

#endif
