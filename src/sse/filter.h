// Matching metric reports against SSE clients' filters and sending them over the SSE socket.
#ifndef RFEVENT_SSE_FILTER_H
#define RFEVENT_SSE_FILTER_H

#include <list>
#include <string>

namespace rfevent {

class ParsedReport;
struct BuiltInReport;

// Sends report to every matching SSE client, one message per distinct filter text; 0.
int send_report_to_sse(const char* report);
void send_report_to_sse(const ParsedReport& report);

// What filterEventsSSE found: the values are those its callers have always been given.
enum class SseFilterResult { Matched = 0, Failed = 1, NoneMatched = 2 };

// Appends one message per distinct matching filter: 0 some matched, 2 none, 1 failure.
int filterEventsSSE(const char* report, std::list<std::string>& messages, std::string idMarker);
SseFilterResult filterEventsSSE(const ParsedReport& report, std::list<std::string>& messages,
                                const std::string& idMarker);

// A built-in report to the SSE clients of its type's fixed key: 0, -1 for an unknown type.
int sendLog_to_sse(const char* reportJson, const char* type);
void sendLog_to_sse(const char* reportJson, const BuiltInReport& type);

// Splits s on every delimiter occurrence, dropping empty pieces.
std::list<std::string> split(const std::string& s, const std::string& delimiter);

} // namespace rfevent

#endif
