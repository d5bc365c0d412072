// The plug-in's log lines, as the stand-alone platform writes them to RFEVENT_LOG_FILE.
// The test main sets level 5, so every line is captured.
#ifndef RFEVENT_TESTS_LOG_CAPTURE_H
#define RFEVENT_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace rfevent::testkit {

// Captures the lines written after its construction (or after the last clear()).
class LogCapture {
  public:
    LogCapture();
    void clear();
    // Lines since the mark, each "<level> [139] message".
    std::vector<std::string> lines() const;
    // Number of lines at this level whose message contains text.
    int count(int level, const std::string& text) const;
    // Same, at any level.
    int countAny(const std::string& text) const;
    bool contains(int level, const std::string& text) const { return count(level, text) > 0; }
    bool containsAny(const std::string& text) const { return countAny(text) > 0; }
    // Everything since the mark, for failure messages.
    std::string dump() const;

  private:
    std::size_t mark_ = 0;
};

} // namespace rfevent::testkit

#endif
