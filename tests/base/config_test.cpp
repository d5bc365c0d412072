// Configuration attributes: the text layer over the configuration manager and the getters.
#include <gtest/gtest.h>

#include <cstring>

#include "base/config.h"
#include "base/config_internal.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

using namespace rfevent::testkit;

namespace {

const char kAttempts[] = "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryAttempts";
const char kInterval[] = "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds";
const char kIgnore[] = "Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors";
const char kHost[] = "System.Embedded.1#ServerOS.1#HostName";

Json::Value typed(const Json::Value& type, const Json::Value& value) {
    Json::Value attribute(Json::objectValue);
    attribute["type"] = type;
    attribute["value"] = value;
    return attribute;
}

Json::Value enumeration(const std::string& value) {
    return typed("enumeration", value);
}

class ConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        writeAttributes(Json::Value(Json::objectValue));
    }
};

TEST_F(ConfigTest, StringAttributeIsCopied) {
    setAttribute("K", "hello");
    char dst[16] = "xxxxxxxxxxxxxxx";
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), 0);
    EXPECT_STREQ(dst, "hello");
}

TEST_F(ConfigTest, StringIsCutToTheBuffer) {
    setAttribute("K", "abcdefgh");
    char dst[4] = {};
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), 0);
    EXPECT_STREQ(dst, "abc");
}

TEST_F(ConfigTest, IntegerAttributeIsPrinted) {
    setAttribute("K", -42);
    char dst[11] = {};
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), 0);
    EXPECT_STREQ(dst, "-42");
}

TEST_F(ConfigTest, EnumerationIsReadAsItsText) {
    setAttribute("K", enumeration("Yes"));
    char dst[11] = {};
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), 0);
    EXPECT_STREQ(dst, "Yes");
}

TEST_F(ConfigTest, UnsupportedTypeFailsAndLeavesDestination) {
    setAttribute("K", typed(0x4099, "x"));
    char dst[8] = "keep";
    LogCapture log;
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), -1);
    EXPECT_STREQ(dst, "keep");
    EXPECT_TRUE(log.contains(4, "]Type not supported for CfgDA, trying SMIL")) << log.dump();
}

TEST_F(ConfigTest, UnresolvableStringIsSuccessWithEmptyValue) {
    for (int type : {0x4052, 0x4053}) {
        setAttribute("K", typed(type, 0));
        char dst[8] = "keep";
        EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), 0) << type;
        EXPECT_STREQ(dst, "") << type;
    }
}

TEST_F(ConfigTest, MissingBodiesFail) {
    char dst[8] = "keep";
    setAttribute("K", typed(0x4052, Json::Value()));
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), -1);
    LogCapture log;
    setAttribute("K", typed(0x4053, Json::Value()));
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), -1);
    EXPECT_TRUE(log.contains(4, "]pEnumAttr is NULL")) << log.dump();
    log.clear();
    setAttribute("K", typed(0x4051, Json::Value()));
    EXPECT_EQ(GetAttrObjByKey("K", dst, sizeof dst), -1);
    EXPECT_TRUE(log.contains(4, "]pIntAttr is NULL")) << log.dump();
    EXPECT_STREQ(dst, "keep");
}

TEST_F(ConfigTest, MissingKeyPassesTheStatusThrough) {
    char dst[8] = "keep";
    LogCapture log;
    int rc = GetAttrObjByKey("Nope", dst, sizeof dst);
    EXPECT_NE(rc, 0);
    EXPECT_STREQ(dst, "keep");
    EXPECT_TRUE(log.contains(2, "]client_get_obj_by_key failure, rc: " + std::to_string(rc)));
}

TEST_F(ConfigTest, RetryAttemptsAreConverted) {
    setAttribute(kAttempts, 3);
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 3);
    setAttribute(kAttempts, "7");
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 7);
    setAttribute(kAttempts, "abc");
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 0);
}

TEST_F(ConfigTest, RetryCountLongerThanTenCharactersIsCutBeforeConversion) {
    setAttribute(kAttempts, "12345678901234");
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 1234567890);
}

TEST_F(ConfigTest, MissingRetryAttributesGiveZero) {
    LogCapture log;
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 0);
    EXPECT_EQ(getDeliveryRetryIntervalSeconds(), 0);
    EXPECT_TRUE(log.contains(
        2, "]GetAttrObjByKey FAILED for deliveryRetryAttempts, so skip this attribute"));
    EXPECT_TRUE(log.contains(2, "]GetAttrObjByKey FAILED for deliveryRetryIntervalInSeconds "));
}

TEST_F(ConfigTest, RetryIntervalIsConverted) {
    setAttribute(kInterval, 5);
    LogCapture log;
    EXPECT_EQ(getDeliveryRetryIntervalSeconds(), 5);
    EXPECT_TRUE(log.contains(4, "]GetAttrObjByKey SUCCESS for deliveryRetryIntervalInSeconds:5 "));
}

TEST_F(ConfigTest, CertificateSwitchValues) {
    const std::pair<const char*, int> cases[] = {{"Yes", 1}, {"No", 0},   {"Y", 1},
                                                 {"Ye", 1},  {"", 1},     {"N", 0},
                                                 {"no", -1}, {"yes", -1}, {"Yess", -1}};
    for (const auto& [text, expected] : cases) {
        setAttribute(kIgnore, enumeration(text));
        EXPECT_EQ(getIgnoreCertificateErrors(), expected) << '"' << text << '"';
    }
}

TEST_F(ConfigTest, MissingCertificateSwitchIsDefault) {
    LogCapture log;
    EXPECT_EQ(getIgnoreCertificateErrors(), -1);
    EXPECT_TRUE(log.contains(
        2, "]GetAttrObjByKey FAILED for IgnoreCertificateErrors, so skip this attribute"));
}

TEST_F(ConfigTest, ConversionLogs) {
    LogCapture log;
    EXPECT_EQ(stringToIntConversion("maybe"), -1);
    EXPECT_TRUE(log.contains(2, "]inputString is Invalid so return DefaultValue"));
    EXPECT_TRUE(log.contains(5, "]inputString is maybe, convertedInteger is -1"));
    EXPECT_EQ(stringToIntConversion("No"), 0);
    EXPECT_TRUE(log.contains(4, "]convertedInteger is VERIFY_CERTIFICATES:0"));
}

TEST_F(ConfigTest, HostNameReplacesOrLeavesTheOutput) {
    std::string out = "previous";
    setAttribute(kHost, "bmc-7");
    EXPECT_EQ(GetHostName(out), 0);
    EXPECT_EQ(out, "bmc-7");
    removeAttribute(kHost);
    LogCapture log;
    EXPECT_NE(GetHostName(out), 0);
    EXPECT_EQ(out, "bmc-7");
    EXPECT_TRUE(log.contains(2, "]RJXE:GetAttrObjByKey FAILED for hostname attribute"));
}

TEST_F(ConfigTest, ValuesAreReadAnewOnEveryCall) {
    setAttribute(kAttempts, 1);
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 1);
    setAttribute(kAttempts, 2);
    EXPECT_EQ(getDeliveryRetryAttemptsValue(), 2);
}

TEST_F(ConfigTest, EntryAndExitAreLogged) {
    LogCapture log;
    getDeliveryRetryAttemptsValue();
    EXPECT_TRUE(log.contains(4, "Entering getDeliveryRetryAttemptsValue Function"));
    EXPECT_TRUE(log.contains(4, "Exiting getDeliveryRetryAttemptsValue Function"));
}

} // namespace
