#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "rfevent/redfish_event.h"

namespace {

const char kManagersRoot[] = "/redfish/v1/Managers";
const char kSystemsRoot[] = "/redfish/v1/Systems";
const char kChassisRoot[] = "/redfish/v1/Chassis";
const char kControllersRoot[] = "/redfish/v1/Systems/System.Embedded.1/Storage/Controllers";
const char kProcessorsRoot[] = "/redfish/v1/Systems/System.Embedded.1/Processors/";
const char kSystem[] = "System.Embedded.1";

bool contains(const char* text, const char* word) {
    return std::strstr(text, word) != nullptr;
}

// The array index of a fan or power supply: the number at a fixed position of the FQDD, less
// one. A position past the end of a short FQDD reads as no digits.
int componentIndex(const char* fqdd, size_t position) {
    if (std::strlen(fqdd) < position) {
        return -1;
    }
    return static_cast<int>(std::strtol(fqdd + position, nullptr, 10)) - 1;
}

} // namespace

extern "C" RFEVENT_API char* MapFQDDToRedfishURI(const char* fqdd, char* buffer, uint32_t size) {
    RF_ENTER();
    if (fqdd == nullptr) {
        fqdd = ""; // matches no row: the empty URI
    }
    if (contains(fqdd, "Tavik.Embedded") && !contains(fqdd, "#")) {
        std::snprintf(buffer, size, "%s/%s", kManagersRoot, fqdd);
    } else if (contains(fqdd, "System.Embedded")) {
        std::snprintf(buffer, size, "%s/%s", kSystemsRoot, fqdd);
    } else if (contains(fqdd, "RAID")) {
        std::snprintf(buffer, size, "%s/%s", kControllersRoot, std::strstr(fqdd, "RAID"));
    } else if (contains(fqdd, "PCIe")) {
        // No resource for these: the caller's buffer stays as it is.
    } else if (contains(fqdd, "NIC")) {
        std::snprintf(buffer, size, "%s/%s/%s/%s", kSystemsRoot, kSystem, "EthernetInterfaces",
                      fqdd);
    } else if (contains(fqdd, "Fan")) {
        std::snprintf(buffer, size, "%s/%s/%s#/%s/%d", kChassisRoot, kSystem, "Thermal", "Fans",
                      componentIndex(fqdd, 13));
    } else if (contains(fqdd, "PSU")) {
        std::snprintf(buffer, size, "%s/%s/%s#/%s/%d", kChassisRoot, kSystem, "Power",
                      "PowerSupplies", componentIndex(fqdd, 9));
    } else if (contains(fqdd, "CPU")) {
        std::snprintf(buffer, size, "%s/%s", kProcessorsRoot, fqdd);
    } else if (contains(fqdd, "BIOS") || contains(fqdd, "DIMM")) {
        std::snprintf(buffer, size, "%s/%s", kSystemsRoot, kSystem);
    } else if (contains(fqdd, "System.Chassis")) {
        std::snprintf(buffer, size, "%s/%s", kChassisRoot, fqdd);
    } else {
        std::snprintf(buffer, size, "%s", "");
    }
    RF_EXIT();
    return buffer;
}
