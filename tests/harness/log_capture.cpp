#include "harness/log_capture.h"

#include <cstdlib>
#include <sstream>

#include "harness/sandbox.h"

namespace rfevent::testkit {

static std::string logText() {
    const char* file = std::getenv("RFEVENT_LOG_FILE");
    return file ? readFile(file) : std::string();
}

LogCapture::LogCapture() {
    clear();
}

void LogCapture::clear() {
    mark_ = logText().size();
}

std::vector<std::string> LogCapture::lines() const {
    std::string text = logText();
    std::istringstream in(text.size() > mark_ ? text.substr(mark_) : std::string());
    std::vector<std::string> result;
    std::string line;
    while (std::getline(in, line)) {
        result.push_back(line);
    }
    return result;
}

int LogCapture::count(int level, const std::string& text) const {
    std::string head = "<" + std::to_string(level) + "> ";
    int n = 0;
    for (const auto& line : lines()) {
        if (line.compare(0, head.size(), head) == 0 && line.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

int LogCapture::countAny(const std::string& text) const {
    int n = 0;
    for (const auto& line : lines()) {
        if (line.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

std::string LogCapture::dump() const {
    std::string text = logText();
    return text.size() > mark_ ? text.substr(mark_) : std::string();
}

} // namespace rfevent::testkit
