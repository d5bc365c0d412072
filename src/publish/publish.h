// One publish point per kind of document. Every path that makes an alert or a report hands it
// here, and it walks the one table of channels (push subscribers, SSE clients), each with its
// handler for every kind of document.
#ifndef RFEVENT_PUBLISH_PUBLISH_H
#define RFEVENT_PUBLISH_PUBLISH_H

#include "base/log.h"
#include "rfevent/redfish_event.h"

namespace rfevent {

class ParsedReport;
struct BuiltInReport;

// One alert to every channel, in table order. Each channel is a unit of its own: an exception
// ends that channel's delivery only (logged under spot, the entry's name), and the next channel
// still gets the alert.
void publishAlert(SourceSpot spot, DataEventHeader* header, void* eventContext);

// A report to every channel, in table order. A failure ends the whole report: it reaches the
// report's source, whose guard drops it.
void publishReport(const ParsedReport& report);

// A built-in report (serial log, CPU registers) to every channel in its own form: first the
// channels that serve these reports live, then the others, each group in table order.
void publishBuiltInReport(const ParsedReport& report, const BuiltInReport& type);

} // namespace rfevent

#endif
