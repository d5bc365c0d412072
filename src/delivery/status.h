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
// or failing, and one that accepts again, is said in one level-2 line. Does not write the
// file: the POSTs flush once their transfers are done and their locks released. An empty id
// records nothing. Never throws.
void recordDeliveryOutcome(const std::string& id, const char* destination, CURL* curl,
                           CURLcode result) noexcept;

// Writes a pending change when the last write is a second old or more, outside every lock but
// the table's own, which it holds only to copy the table. Called at the end of every POST
// call, and by the re-send thread on every pass, so a change reaches the file within 3 s
// even when no further delivery comes.
void flushDeliveryStatus() noexcept;

} // namespace rfevent

#endif
