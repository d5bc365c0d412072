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

// Writes the attribute's value as text into dst (at most dstLen - 1 characters) and returns 0;
// any other status is a failure and leaves dst as it was.
int GetAttrObjByKey(const char* key, char* dst, uint32_t dstLen);
int GetAttrObjByKey_DBUS(const char* key, char* dst, uint32_t dstLen);

int getDeliveryRetryAttemptsValue();
int getDeliveryRetryIntervalSeconds();
int getIgnoreCertificateErrors();
int stringToIntConversion(const char* inputString);
int GetHostName(std::string& out);

} // namespace rfevent

#endif
