// Matching metric reports against SSE clients' filters and sending them over the SSE socket.
#ifndef RFEVENT_SSE_FILTER_H
#define RFEVENT_SSE_FILTER_H

#include <list>
#include <string>

namespace rfevent {

// Sends report to every matching SSE client, one message per distinct filter text; 0.
int send_report_to_sse(const char* report);

// Appends one message per distinct matching filter: 0 some matched, 2 none, 1 failure.
int filterEventsSSE(const char* report, std::list<std::string>& messages, std::string idMarker);

// Strips one enclosing pair of parentheses, then one enclosing pair of single quotes.
std::string removeBraces(std::string s);

// Splits s on every delimiter occurrence, dropping empty pieces.
std::list<std::string> split(const std::string& s, const std::string& delimiter);

} // namespace rfevent

#endif
