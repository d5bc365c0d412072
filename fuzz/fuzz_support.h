// Helpers shared by the fuzz entries: a private root folder for the plug-in's fixed paths,
// input splitting and file writing. Used by the libFuzzer targets and by the regression test
// that replays the committed inputs.
#ifndef RFEVENT_FUZZ_SUPPORT_H
#define RFEVENT_FUZZ_SUPPORT_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <json/json.h>

namespace rfevent::fuzz {

// Gives the process a root folder of its own unless one is set (the test harness sets one).
inline void ensureRoot() {
    static const bool ready = [] {
        if (std::getenv("RFEVENT_ROOT") == nullptr) {
            char folder[] = "/tmp/rfevent-fuzz-XXXXXX";
            if (::mkdtemp(folder) != nullptr) {
                ::setenv("RFEVENT_ROOT", folder, 1);
            }
        }
        return true;
    }();
    (void)ready;
}

// The input cut at every NUL byte into at most count pieces (the last one keeps the rest);
// missing pieces are empty.
inline std::vector<std::string> pieces(const uint8_t* data, std::size_t size, std::size_t count) {
    std::vector<std::string> out(count);
    std::size_t piece = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\0' && piece + 1 < count) {
            ++piece;
        } else {
            out[piece].push_back(c);
        }
    }
    return out;
}

// Text as a C string: everything up to the first NUL.
inline std::string cText(const std::string& piece) {
    return piece.substr(0, piece.find('\0'));
}

inline void makeParents(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

inline void writeWhole(const std::string& path, const std::string& content) {
    makeParents(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Writes the stand-alone platform's delivery settings (eventing on, no interval, certificate
// checking off) with the given retry count, once for each sandbox root: the root in use, or
// "" when this root was prepared already.
inline std::string writeDeliverySettingsOnce(std::string& preparedFor, int attempts) {
    const char* rootVariable = std::getenv("RFEVENT_ROOT");
    const std::string root = rootVariable != nullptr ? rootVariable : "";
    if (root == preparedFor) {
        return "";
    }
    preparedFor = root;
    const std::string prefix = "Tavik.Embedded.1#RedfishEventing.1#";
    Json::Value attributes(Json::objectValue);
    attributes[prefix + "EventEnable"] = "1";
    attributes[prefix + "DeliveryRetryAttempts"] = attempts;
    attributes[prefix + "DeliveryRetryIntervalInSeconds"] = 0;
    attributes[prefix + "IgnoreCertificateErrors"]["type"] = "enumeration";
    attributes[prefix + "IgnoreCertificateErrors"]["value"] = "Yes";
    attributes["System.Embedded.1#ServerOS.1#HostName"] = "fuzzhost";
    writeWhole(root + "/var/lib/rfevent/attributes.json", attributes.toStyledString());
    return root.empty() ? "/" : root;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_SUPPORT_H
