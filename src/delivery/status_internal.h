// Parts of the delivery status that only tests and benchmarks use.
#ifndef RFEVENT_DELIVERY_STATUS_INTERNAL_H
#define RFEVENT_DELIVERY_STATUS_INTERNAL_H

#include <string>

namespace rfevent {

// url without its user-info part ("user:password@"), otherwise byte for byte.
std::string withoutUserInfo(const std::string& url);

// Writes a pending change now, whatever the time since the last write (unless another
// thread is writing at this moment).
void writeDeliveryStatusNow() noexcept;

} // namespace rfevent

#endif
