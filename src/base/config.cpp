#include "base/config.h"
#include "base/config_internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "platform/platform.h"

namespace rfevent {

namespace {

const char kConfigService[] = "com.orva.tavik.CfgMgr";
const char kRetryAttemptsKey[] = "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryAttempts";
const char kRetryIntervalKey[] =
    "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds";
const char kIgnoreCertificatesKey[] = "Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors";
const char kHostNameKey[] = "System.Embedded.1#ServerOS.1#HostName";

// strlcpy semantics: copies at most dstLen - 1 characters and always terminates.
void copyBounded(char* dst, const char* src, uint32_t dstLen) {
    if (dstLen == 0) {
        return;
    }
    std::size_t length = std::strlen(src);
    if (length >= dstLen) {
        length = dstLen - 1;
    }
    std::memcpy(dst, src, length);
    dst[length] = '\0';
}

// The object's body of the expected type: 0 with *body set, or the status to return (the
// manager's, or -1 for an object without a body).
int typedBody(SMILObj* object, uint16_t typeCode, void** body) {
    *body = nullptr;
    int rc = client_get_obj_body_ptr(object, body, typeCode);
    if (rc != 0) {
        RF_LOG(kLogError, "[%s():%d]client_get_obj_body_ptr failure, rc: %d", rc);
        return rc;
    }
    if (*body != nullptr) {
        return 0;
    }
    if (typeCode == CFG_TYPE_ENUMERATION) {
        RF_LOG(kLogDebug, "[%s():%d]pEnumAttr is NULL\n");
    } else if (typeCode == CFG_TYPE_INTEGER) {
        RF_LOG(kLogDebug, "[%s():%d]pIntAttr is NULL\n");
    }
    return -1;
}

// String and enumeration attributes: the body refers to the text inside the object. A text
// that cannot be resolved is reported as success with an empty value.
int copyReferencedText(SMILObj* object, uint16_t typeCode, char* dst, uint32_t dstLen) {
    void* body = nullptr;
    const int rc = typedBody(object, typeCode, &body);
    if (rc != 0) {
        return rc;
    }
    uint32_t ref = 0;
    std::memcpy(&ref, body, sizeof ref); // valueRef and currentValueRef share the layout
    char* text = nullptr;
    if (client_get_string_ptr(object, ref, &text) == 0 && text != nullptr) {
        copyBounded(dst, text, dstLen);
    } else if (dstLen > 0) {
        dst[0] = '\0';
    }
    return 0;
}

int printInteger(SMILObj* object, char* dst, uint32_t dstLen) {
    void* body = nullptr;
    const int rc = typedBody(object, CFG_TYPE_INTEGER, &body);
    if (rc != 0) {
        return rc;
    }
    int32_t value = 0;
    std::memcpy(&value, body, sizeof value);
    std::snprintf(dst, dstLen, "%d", value);
    return 0;
}

// How a numeric attribute's read is logged, each text without its "[%s():%d]" head.
struct NumberTexts {
    const char* read;   // followed by the value and a space (level 4)
    const char* failed; // level 2
};

// A numeric attribute read into an 11-byte buffer and converted with strtol base 10 (text that
// is no number gives 0); 0 when it cannot be read. Logged under the getter's spot.
int readNumberAttribute(SourceSpot spot, const char* key, const NumberTexts& texts) {
    char buffer[11] = {};
    if (GetAttrObjByKey(key, buffer, sizeof buffer) != 0) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.failed);
        return 0;
    }
    RF_LOG_AT(spot, kLogDebug, "[%s():%d]%s%s ", texts.read, buffer);
    return static_cast<int>(std::strtol(buffer, nullptr, 10));
}

} // namespace

int GetAttrObjByKey_DBUS(const char* key, char* dst, uint32_t dstLen) {
    RF_ENTER();
    SMILObj* object = nullptr;
    int rc = client_get_obj_by_key(kConfigService, key, &object, 0);
    if (rc != 0) {
        RF_LOG(kLogError, "[%s():%d]client_get_obj_by_key failure, rc: %d", rc);
        RF_EXIT();
        return rc;
    }
    if (object == nullptr) {
        RF_LOG(kLogError, "[%s():%d]client_get_obj_by_key returned NULL ptr");
        RF_EXIT();
        return kStatusNullObject;
    }
    switch (object->typeCode) {
    case CFG_TYPE_STRING:
    case CFG_TYPE_ENUMERATION:
        rc = copyReferencedText(object, object->typeCode, dst, dstLen);
        break;
    case CFG_TYPE_INTEGER:
        rc = printInteger(object, dst, dstLen);
        break;
    default:
        RF_LOG(kLogDebug, "[%s():%d]Type not supported for CfgDA, trying SMIL");
        rc = -1;
        break;
    }
    SMILFreeGeneric(object);
    RF_EXIT();
    return rc;
}

int GetAttrObjByKey(const char* key, char* dst, uint32_t dstLen) {
    RF_ENTER();
    int rc = GetAttrObjByKey_DBUS(key, dst, dstLen);
    RF_EXIT();
    return rc;
}

int getDeliveryRetryAttemptsValue() {
    RF_ENTER();
    const int value = readNumberAttribute(
        RF_HERE, kRetryAttemptsKey,
        {"deliveryRetryAttempts::",
         "GetAttrObjByKey FAILED for deliveryRetryAttempts, so skip this attribute\n"});
    RF_EXIT();
    return value;
}

int getDeliveryRetryIntervalSeconds() {
    RF_ENTER();
    const int value =
        readNumberAttribute(RF_HERE, kRetryIntervalKey,
                            {"GetAttrObjByKey SUCCESS for deliveryRetryIntervalInSeconds:",
                             "GetAttrObjByKey FAILED for deliveryRetryIntervalInSeconds \n"});
    RF_EXIT();
    return value;
}

int getIgnoreCertificateErrors() {
    RF_ENTER();
    char buffer[11] = {};
    int value = CERTIFICATE_SWITCH_DEFAULT;
    if (GetAttrObjByKey(kIgnoreCertificatesKey, buffer, sizeof buffer) != 0) {
        RF_LOG(kLogError,
               "[%s():%d]GetAttrObjByKey FAILED for IgnoreCertificateErrors, so skip this "
               "attribute");
    } else {
        RF_LOG(kLogDebug, "[%s():%d]ignoreCertificateErrors:%s", buffer);
        value = stringToIntConversion(buffer);
    }
    RF_EXIT();
    return value;
}

// The comparison runs over the input's own length: "", "Y" and "Ye" read as "Yes", "N" as
// "No". Case matters.
int stringToIntConversion(const char* inputString) {
    RF_ENTER();
    std::size_t n = std::strlen(inputString);
    int converted = CERTIFICATE_SWITCH_DEFAULT;
    if (std::strncmp(inputString, "Yes", n) == 0) {
        converted = IGNORE_CERTIFICATES;
        RF_LOG(kLogDebug, "[%s():%d]convertedInteger is IGNORE_CERTIFICATES:%d", converted);
    } else if (std::strncmp(inputString, "No", n) == 0) {
        converted = VERIFY_CERTIFICATES;
        RF_LOG(kLogDebug, "[%s():%d]convertedInteger is VERIFY_CERTIFICATES:%d", converted);
    } else {
        RF_LOG(kLogError, "[%s():%d]inputString is Invalid so return DefaultValue");
    }
    RF_LOG(kLogInfo, "[%s():%d]inputString is %s, convertedInteger is %d", inputString, converted);
    RF_EXIT();
    return converted;
}

int GetHostName(std::string& out) {
    RF_ENTER();
    // The 1024-byte buffer lives on the heap: an alert runs on its caller's stack.
    std::string buffer(1024, '\0');
    int rc = GetAttrObjByKey(kHostNameKey, &buffer[0], static_cast<uint32_t>(buffer.size()));
    if (rc == 0) {
        out = buffer.substr(0, buffer.find('\0')); // the text ends at its NUL
    } else {
        RF_LOG(kLogError, "[%s():%d]RJXE:GetAttrObjByKey FAILED for hostname attribute");
    }
    RF_EXIT();
    return rc;
}

} // namespace rfevent
