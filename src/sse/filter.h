// Matching metric reports against SSE clients' filters and sending them over the SSE socket.
#ifndef RFEVENT_SSE_FILTER_H
#define RFEVENT_SSE_FILTER_H

#include <list>
#include <string>

namespace rfevent {

class ParsedReport;
struct BuiltInReport;

// Sends report to every matching SSE client, one message per distinct filter text.
void send_report_to_sse(const ParsedReport& report);

// A built-in report to the SSE clients of its type's fixed key.
void sendLog_to_sse(const char* reportJson, const BuiltInReport& type);

// Splits s on every delimiter occurrence, dropping empty pieces.
std::list<std::string> split(const std::string& s, const std::string& delimiter);

} // namespace rfevent

#endif
