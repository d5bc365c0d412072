// The delivery status file as the simulator shows it.
#include "status_table.h"

#include <fstream>
#include <sstream>

namespace rfevent::sim {

namespace {

std::string pad(const std::string& text, std::size_t width) {
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

std::string number(const Json::Value& value) {
    return value.isIntegral() ? std::to_string(value.asLargestInt()) : "-";
}

} // namespace

Json::Value readDeliveryStatus(const std::string& root) {
    std::ifstream in(root + kDeliveryStatusFile);
    Json::Value status;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &status, &errors) || !status.isObject()) {
        return Json::Value(Json::objectValue);
    }
    return status;
}

std::map<std::string, OutcomeCounts> countsByDestination(const Json::Value& status) {
    std::map<std::string, OutcomeCounts> counts;
    for (const Json::Value& entry : status) {
        OutcomeCounts& sum = counts[entry["Destination"].asString()];
        sum.delivered += entry["Delivered"].asLargestInt();
        sum.refused += entry["Refused"].asLargestInt();
        sum.failed += entry["Failed"].asLargestInt();
    }
    return counts;
}

int printDeliveryStatus(const std::string& root, std::ostream& out) {
    const std::string path = root + kDeliveryStatusFile;
    if (!std::ifstream(path)) {
        out << "rfevent-sim: no delivery status at " << path << "\n";
        return 1;
    }
    const Json::Value status = readDeliveryStatus(root);
    out << "Delivery status " << path << "\n";
    out << "  " << pad("Subscription", 14) << pad("last", 11) << pad("HTTP", 6)
        << pad("problems", 10) << pad("delivered", 11) << pad("refused", 9) << pad("failed", 8)
        << pad("last attempt", 27) << "destination / error\n";
    for (auto it = status.begin(); it != status.end(); ++it) {
        const Json::Value& entry = *it;
        std::string where = entry["Destination"].asString();
        if (entry.isMember("LastError")) {
            where += "  (" + entry["LastError"].asString() + ")";
        }
        out << "  " << pad(it.name(), 14) << pad(entry["LastOutcome"].asString(), 11)
            << pad(entry.isMember("LastHttpStatus") ? number(entry["LastHttpStatus"]) : "-", 6)
            << pad(number(entry["ConsecutiveProblems"]), 10) << pad(number(entry["Delivered"]), 11)
            << pad(number(entry["Refused"]), 9) << pad(number(entry["Failed"]), 8)
            << pad(entry["LastAttempt"].asString(), 27) << where << "\n";
    }
    if (status.empty()) {
        out << "  (no delivery recorded)\n";
    }
    return 0;
}

} // namespace rfevent::sim
