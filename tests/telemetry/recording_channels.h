// Recording channels in place of the real ones, for tests of the paths that publish: every
// report handed to the publish point is recorded as "subscription:<text>" and "sse:<text>", a
// built-in report as "serial" or "cpu", an alert as "alert:subscription" and "alert:sse".
// Each test makes its own; the real channels come back when it ends.
#ifndef RFEVENT_TESTS_TELEMETRY_RECORDING_CHANNELS_H
#define RFEVENT_TESTS_TELEMETRY_RECORDING_CHANNELS_H

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/builtin_reports.h"
#include "base/report.h"
#include "publish/channels_internal.h"

namespace rfevent::testkit {

class RecordingChannels {
  public:
    RecordingChannels() {
        instance() = this;
        rfevent::g_channels = {
            {"sendRedFishEvent dropped the alert", alertToSubscribers, reportToSubscribers,
             builtInToSubscribers, false},
            {"sendRedFishEvent_SSE dropped the alert", alertToSse, reportToSse, noBuiltIn, true},
        };
    }
    ~RecordingChannels() {
        rfevent::g_channels = rfevent::defaultChannels();
        instance() = nullptr;
    }
    RecordingChannels(const RecordingChannels&) = delete;
    RecordingChannels& operator=(const RecordingChannels&) = delete;

    std::vector<std::string> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    // Called before each record; a test adds its own events here (a lookup seen in the log).
    std::function<void()> beforeRecord;
    // A report with this text makes the subscription channel throw.
    std::string throwOn;

  private:
    static RecordingChannels*& instance() {
        static RecordingChannels* current = nullptr;
        return current;
    }
    static void add(const std::string& event) {
        RecordingChannels* self = instance();
        if (self->beforeRecord) {
            self->beforeRecord();
        }
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->events_.push_back(event);
    }

  public:
    // For a test's own events, recorded in order with the channels' ones.
    static void addEvent(const std::string& event) {
        std::lock_guard<std::mutex> lock(instance()->mutex_);
        instance()->events_.push_back(event);
    }

  private:
    static void alertToSubscribers(DataEventHeader*, void*) { add("alert:subscription"); }
    static void alertToSse(DataEventHeader*, void*) { add("alert:sse"); }
    static void reportToSubscribers(const ParsedReport& report) {
        if (instance()->throwOn == report.text()) {
            throw std::runtime_error("subscription store broke");
        }
        add(std::string("subscription:") + report.text());
    }
    static void reportToSse(const ParsedReport& report) {
        add(std::string("sse:") + report.text());
    }
    static void builtInToSubscribers(const ParsedReport&, const BuiltInReport& type) {
        add(&type == &kSerialLogReport ? "serial" : "cpu");
    }
    static void noBuiltIn(const ParsedReport&, const BuiltInReport&) {}

    std::mutex mutex_;
    std::vector<std::string> events_;
};

} // namespace rfevent::testkit

#endif
