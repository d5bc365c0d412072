// Inside the SSE filter, for its tests.
#ifndef RFEVENT_SSE_FILTER_INTERNAL_H
#define RFEVENT_SSE_FILTER_INTERNAL_H

#include <list>
#include <string>

namespace rfevent {

class ParsedReport;

// send_report_to_sse for a report text; 0.
int send_report_to_sse(const char* report);

// What filterEventsSSE found: the values are those its callers have always been given.
enum class SseFilterResult { Matched = 0, Failed = 1, NoneMatched = 2 };

// Appends one message per distinct matching filter: 0 some matched, 2 none, 1 failure.
int filterEventsSSE(const char* report, std::list<std::string>& messages, std::string idMarker);
SseFilterResult filterEventsSSE(const ParsedReport& report, std::list<std::string>& messages,
                                const std::string& idMarker);

// A built-in report by its type name: 0, -1 for an unknown type.
int sendLog_to_sse(const char* reportJson, const char* type);

// Strips one enclosing pair of parentheses, then one enclosing pair of single quotes.
std::string removeBraces(std::string s);

// Replaces every ";" of message by "%3B".
void EncodeStr(std::string& message);

} // namespace rfevent

#endif
