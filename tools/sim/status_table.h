// The plug-in's delivery status file, read back for the summary and the status command.
#ifndef RFEVENT_SIM_STATUS_TABLE_H
#define RFEVENT_SIM_STATUS_TABLE_H

#include <map>
#include <ostream>
#include <string>

#include <json/json.h>

namespace rfevent::sim {

inline constexpr const char* kDeliveryStatusFile = "/var/run/rfevent/delivery-status.json";

// Outcome counts of every subscription that delivers to one destination.
struct OutcomeCounts {
    long long delivered = 0;
    long long refused = 0;
    long long failed = 0;
};

// The status file under root ("" for the controller's own); an empty object when it is absent
// or does not parse.
Json::Value readDeliveryStatus(const std::string& root);

// The counts of the file, summed by destination URL.
std::map<std::string, OutcomeCounts> countsByDestination(const Json::Value& status);

// `rfevent-sim status`: the file under root as a table; the exit status.
int printDeliveryStatus(const std::string& root, std::ostream& out);

} // namespace rfevent::sim

#endif
