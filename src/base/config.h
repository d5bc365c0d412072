// Controller settings read from the configuration manager, anew on every call.
#ifndef RFEVENT_BASE_CONFIG_H
#define RFEVENT_BASE_CONFIG_H

#include <cstdint>
#include <string>

namespace rfevent {

// Values of the certificate-checking switch.
constexpr int IGNORE_CERTIFICATES = 1;
constexpr int VERIFY_CERTIFICATES = 0;
constexpr int CERTIFICATE_SWITCH_DEFAULT = -1;

// Status used for a null object or a null message id.
constexpr int kStatusNullObject = 12902;

int getDeliveryRetryAttemptsValue();
int getDeliveryRetryIntervalSeconds();
int getIgnoreCertificateErrors();
int GetHostName(std::string& out);

} // namespace rfevent

#endif
