// The file side of the delivery status: which subscriptions the store holds, and the atomic
// replacement of the status file.
#ifndef RFEVENT_DELIVERY_STATUS_FILE_H
#define RFEVENT_DELIVERY_STATUS_FILE_H

#include <set>
#include <string>

namespace rfevent {

// The ids of the subscription store, re-read only when the store changed since the last
// call. False when they cannot be known (a store that does not parse); an absent store holds
// none.
bool storedSubscriptionIds(std::set<std::string>& ids);

// Replaces the status file with text: a temporary file in its folder, renamed over it. The
// folder is created (0755) when missing; the file is 0644. Not flushed to disk: it lives on a
// RAM file system and means nothing after a restart. False when any step failed.
bool replaceStatusFile(const std::string& text);

} // namespace rfevent

#endif
