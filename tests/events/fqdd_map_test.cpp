#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "harness/sandbox.h"
#include "rfevent/redfish_event.h"

using namespace rfevent;

namespace {

std::string mapped(const char* fqdd, uint32_t size = 256) {
    char buffer[256] = {};
    char* result = MapFQDDToRedfishURI(fqdd, buffer, size);
    EXPECT_EQ(result, buffer);
    return buffer;
}

class FqddMapTest : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }
};

TEST_F(FqddMapTest, ManagerFqdd) {
    EXPECT_EQ(mapped("Tavik.Embedded.1"), "/redfish/v1/Managers/Tavik.Embedded.1");
}

TEST_F(FqddMapTest, ManagerFqddWithHashFallsThroughToLaterRows) {
    EXPECT_EQ(mapped("Tavik.Embedded.1#NIC.1"),
              "/redfish/v1/Systems/System.Embedded.1/EthernetInterfaces/Tavik.Embedded.1#NIC.1");
    EXPECT_EQ(mapped("Tavik.Embedded.1#Foo"), "");
}

TEST_F(FqddMapTest, SystemFqdd) {
    EXPECT_EQ(mapped("System.Embedded.1"), "/redfish/v1/Systems/System.Embedded.1");
}

TEST_F(FqddMapTest, RaidFqddKeepsTheTailFromRaid) {
    EXPECT_EQ(mapped("Disk.Bay.0:Enclosure.Internal.0-1:RAID.Integrated.1-1"),
              "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers/RAID.Integrated.1-1");
}

TEST_F(FqddMapTest, PcieLeavesTheBufferAsPassed) {
    char buffer[32];
    std::strcpy(buffer, "untouched");
    MapFQDDToRedfishURI("PCIe.Slot.1", buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(mapped("NIC.PCIe.1"), ""); // "PCIe" is tested before "NIC"
}

TEST_F(FqddMapTest, NicFqdd) {
    EXPECT_EQ(mapped("NIC.Integrated.1-1-1"),
              "/redfish/v1/Systems/System.Embedded.1/EthernetInterfaces/NIC.Integrated.1-1-1");
}

TEST_F(FqddMapTest, FanAndPowerSupplyBecomeArrayIndexes) {
    EXPECT_EQ(mapped("Fan.Embedded.3"), "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/2");
    EXPECT_EQ(mapped("Fan.Embedded.1"), "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/0");
    EXPECT_EQ(mapped("PSU.Slot.1"), "/redfish/v1/Chassis/System.Embedded.1/Power#/PowerSupplies/0");
    EXPECT_EQ(mapped("PSU.Slot.2"), "/redfish/v1/Chassis/System.Embedded.1/Power#/PowerSupplies/1");
}

TEST_F(FqddMapTest, NumberIsReadAtAFixedPositionNotAfterTheKeyword) {
    EXPECT_EQ(mapped("Fan.Embedded.X"), "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/-1");
    EXPECT_EQ(mapped("Sys.Fan.Embedded.12"),
              "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/-1");
    EXPECT_EQ(mapped("Fan"), "/redfish/v1/Chassis/System.Embedded.1/Thermal#/Fans/-1");
}

TEST_F(FqddMapTest, CpuKeepsTheDoubleSlash) {
    EXPECT_EQ(mapped("CPU.Socket.1"),
              "/redfish/v1/Systems/System.Embedded.1/Processors//CPU.Socket.1");
}

TEST_F(FqddMapTest, BiosAndDimmGiveTheSystem) {
    EXPECT_EQ(mapped("BIOS.Setup.1-1"), "/redfish/v1/Systems/System.Embedded.1");
    EXPECT_EQ(mapped("DIMM.Socket.A1"), "/redfish/v1/Systems/System.Embedded.1");
}

TEST_F(FqddMapTest, ChassisFqdd) {
    EXPECT_EQ(mapped("System.Chassis.1"), "/redfish/v1/Chassis/System.Chassis.1");
}

TEST_F(FqddMapTest, FirstMatchingRowDecides) {
    EXPECT_EQ(mapped("System.Embedded.1:RAID.Integrated.1-1"),
              "/redfish/v1/Systems/System.Embedded.1:RAID.Integrated.1-1");
}

TEST_F(FqddMapTest, UnknownAndNullGiveEmpty) {
    EXPECT_EQ(mapped("Something.Else.1"), "");
    EXPECT_EQ(mapped(nullptr), "");
    EXPECT_EQ(mapped("system.embedded.1"), ""); // case-sensitive
}

TEST_F(FqddMapTest, SmallBufferCutsTheUri) {
    EXPECT_EQ(mapped("System.Embedded.1", 10), "/redfish/");
}

} // namespace
