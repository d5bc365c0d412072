// Test-only access to the configuration layer: the read of one attribute as text, and the
// conversion of the certificate-checking text.
#ifndef RFEVENT_BASE_CONFIG_INTERNAL_H
#define RFEVENT_BASE_CONFIG_INTERNAL_H

#include <cstdint>

namespace rfevent {

// Writes the attribute's value as text into dst (at most dstLen - 1 characters) and returns 0;
// any other status is a failure and leaves dst as it was.
int GetAttrObjByKey(const char* key, char* dst, uint32_t dstLen);
int GetAttrObjByKey_DBUS(const char* key, char* dst, uint32_t dstLen);

// "Yes" and its prefixes (the empty text included) give IGNORE_CERTIFICATES, "No" and "N"
// VERIFY_CERTIFICATES, anything else CERTIFICATE_SWITCH_DEFAULT.
int stringToIntConversion(const char* inputString);

} // namespace rfevent

#endif
