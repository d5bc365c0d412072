// The cases of the benchmark, in the order the table shows them.
#ifndef RFEVENT_BENCH_CASES_H
#define RFEVENT_BENCH_CASES_H

#include <string>
#include <vector>

#include "context.h"
#include "table.h"

namespace rfevent::bench {

// Alerts to 1, 10 and 30 push subscribers over HTTPS with mutual TLS, checking off and on.
void runAlertCases(const Context& context, Table& table);
// An alert with a store of 5,000 subscriptions of which 10 take alerts, against the best client.
void runStoreCases(const Context& context, Table& table);
// Metric reports: 30 destinations in one pass, one slow destination, 100 and 300.
void runReportCases(const Context& context, Table& table);
// SSE report messages of 1 KiB, 64 KiB and 1 MiB over the SSE socket.
void runSseCases(const Context& context, Table& table);
// Report lookups in a telemetry database of 10,000 reports.
void runDatabaseCases(const Context& context, Table& table);
// Instructions per pipe announcement and per event document, counted by callgrind.
void runInstructionCases(const Context& context, Table& table);
// Instructions per metric report fanned out to 30 push subscriptions and 10 SSE clients.
void runFanOutCases(const Context& context, Table& table);
// Stripped sizes, resident memory over many alerts, worker threads.
void runFootprintCases(const Context& context, Table& table);

// The measurements that run in a process of their own ("--child NAME"). They print "key
// value" lines and return the exit status.
int runInstructionChild(const std::string& name);
int runFanOutChild(const std::string& name);

// Instructions of a child's measured loop under callgrind; the functions matching the patterns
// of exclude (callgrind's --toggle-collect) are left out of the count.
double underCallgrind(const Context& context, const std::string& child,
                      const std::vector<std::string>& exclude = {});
int runFootprintChild(const std::string& name, const Context& context);

} // namespace rfevent::bench

#endif
