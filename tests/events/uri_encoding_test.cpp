#include <gtest/gtest.h>

#include <string>

#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "rfevent/redfish_event.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

class UriEncodingTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }
};

std::string encoded(std::string text) {
    GetEncodedURIsegment(text);
    return text;
}

TEST_F(UriEncodingTest, EmptyStaysEmptyAndSaysSo) {
    tk::LogCapture log;
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(log.count(4, " - Empty Uri Segment"), 1);
    EXPECT_FALSE(log.containsAny("Input Uri Segment"));
}

TEST_F(UriEncodingTest, HashAndSlashAreKept) {
    const std::string uri = "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/0";
    EXPECT_EQ(encoded(uri), uri);
}

TEST_F(UriEncodingTest, SpaceColonAndBarAreEncodedInPlace) {
    tk::LogCapture log;
    EXPECT_EQ(encoded("a b:c|d"), "a%20b%3Ac%7Cd");
    EXPECT_EQ(log.count(4, " - Input Uri Segment: a b:c|d"), 1);
    EXPECT_EQ(log.count(4, " - Found Encodable Char : "), 3);
    EXPECT_EQ(log.count(4, " - Encoded Uri Segment: a%20b%3Ac%7Cd"), 1);
}

TEST_F(UriEncodingTest, PercentIsNeverTouched) {
    EXPECT_EQ(encoded("a%20b"), "a%20b");
    EXPECT_EQ(encoded("100%"), "100%");
}

TEST_F(UriEncodingTest, RepeatedCharactersAreAllReplaced) {
    EXPECT_EQ(encoded("  ::||"), "%20%20%3A%3A%7C%7C");
}

TEST_F(UriEncodingTest, FqddWithColon) {
    EXPECT_EQ(encoded("Disk.Bay.0:Enclosure.Internal.0-1"), "Disk.Bay.0%3AEnclosure.Internal.0-1");
}

} // namespace
