// The extra request headers a subscription asks for.
#ifndef RFEVENT_DELIVERY_HTTP_HEADERS_H
#define RFEVENT_DELIVERY_HTTP_HEADERS_H

#include <string>
#include <vector>

#include <json/json.h>

namespace rfevent {

// One "name:value" line per member of each "HttpHeaders" element, in order. A header whose name
// or value holds CR or LF would let the subscription inject header lines of its own: it is
// dropped with a level-2 log line. Raises the JSON library's type error for malformed elements,
// before the caller has allocated anything for the transfer.
std::vector<std::string> subscriptionHeaderLines(const Json::Value& subscription);

} // namespace rfevent

#endif
