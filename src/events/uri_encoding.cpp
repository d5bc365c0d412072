#include <map>
#include <string>

#include "base/log.h"
#include "rfevent/redfish_event.h"

using rfevent::kLogDebug;

RFEVENT_API void GetEncodedURIsegment(std::string& segment) {
    RF_ENTER();
    if (segment.empty()) {
        RF_LOG(kLogDebug, "%s:%d - Empty Uri Segment");
        RF_EXIT();
        return;
    }
    RF_LOG(kLogDebug, "%s:%d - Input Uri Segment: %s", segment.c_str());
    // Walked in key order: space, colon, vertical bar. Everything else, '%' included, stays.
    static const std::map<std::string, std::string> kReplacements = {
        {" ", "%20"}, {":", "%3A"}, {"|", "%7C"}};
    for (const auto& [character, replacement] : kReplacements) {
        for (size_t at = segment.find(character); at != std::string::npos;
             at = segment.find(character)) {
            RF_LOG(kLogDebug, "%s:%d - Found Encodable Char : %s", character.c_str());
            segment.replace(at, 1, replacement);
        }
    }
    RF_LOG(kLogDebug, "%s:%d - Encoded Uri Segment: %s", segment.c_str());
    RF_EXIT();
}
