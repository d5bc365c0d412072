// The channel table behind the publish point, for the publish point and for tests, which put
// recording channels in place of the real ones.
#ifndef RFEVENT_PUBLISH_CHANNELS_INTERNAL_H
#define RFEVENT_PUBLISH_CHANNELS_INTERNAL_H

#include <vector>

#include "rfevent/redfish_event.h"

namespace rfevent {

class ParsedReport;
struct BuiltInReport;

// One way documents leave the plug-in, with its handler for each kind of document.
struct Channel {
    const char* alertDropped; // the guard's text when the alert handler fails
    void (*alert)(DataEventHeader* header, void* eventContext);
    void (*report)(const ParsedReport& report);
    void (*builtInReport)(const ParsedReport& report, const BuiltInReport& type);
    bool servesBuiltInFirst; // takes built-in reports before the other channels
};

// The channels in use, in the order documents reach them. Set before any document is
// published (tests swap it while no thread publishes).
extern std::vector<Channel> g_channels;

// The plug-in's channels: push subscribers, then SSE clients.
std::vector<Channel> defaultChannels();

} // namespace rfevent

#endif
