// What became of each subscription's deliveries, for the host and the operator. Every
// transfer's end goes into one table, kept since load; the table is written to
// "/var/run/rfevent/delivery-status.json" at most once a second. Nothing here changes how a
// delivery is counted or retried: a refused delivery still counts as delivered.
#ifndef RFEVENT_DELIVERY_STATUS_H
#define RFEVENT_DELIVERY_STATUS_H

#include <curl/curl.h>

#include <string>

namespace rfevent {

// Records the end of one transfer to destination for the subscription named id: result is
// libcurl's, the answer's status is read from curl. A 2xx answer is "delivered", any other
// answer "refused", a transfer without an answer "failed". A destination that starts refusing
// or failing, and one that accepts again, is said in one level-2 line. Writes the file when
// the last write is a second old or more. An empty id records nothing. Never throws.
void recordDeliveryOutcome(const std::string& id, const char* destination, CURL* curl,
                           CURLcode result) noexcept;

// Writes a pending change when the last write is a second old or more. The re-send thread
// calls it on every pass, so a change reaches the file without a further delivery.
void flushDeliveryStatus() noexcept;

} // namespace rfevent

#endif
