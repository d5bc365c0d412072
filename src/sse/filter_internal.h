// Inside the SSE filter, for its tests.
#ifndef RFEVENT_SSE_FILTER_INTERNAL_H
#define RFEVENT_SSE_FILTER_INTERNAL_H

#include <string>

namespace rfevent {

// Strips one enclosing pair of parentheses, then one enclosing pair of single quotes.
std::string removeBraces(std::string s);

// Replaces every ";" of message by "%3B".
void EncodeStr(std::string& message);

} // namespace rfevent

#endif
